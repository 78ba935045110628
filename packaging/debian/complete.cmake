# Adds to each package what Debian requires, before it is packed.
find_program(GZIP gzip REQUIRED)

# Without a name and a time in the file, so that the same input gives the same bytes.
function(compress)
    execute_process(COMMAND ${GZIP} -9n ${ARGN} COMMAND_ERROR_IS_FATAL ANY)
endfunction()

foreach(package IN LISTS CPACK_COMPONENTS_ALL)
    set(share ${CPACK_TEMPORARY_DIRECTORY}/${package}/usr/share)
    set(doc ${share}/doc/${package})
    file(COPY ${CPACK_DEBIAN_FILES}/copyright DESTINATION ${doc})
    file(COPY_FILE ${CPACK_DEBIAN_FILES}/changelog ${doc}/changelog)
    if(EXISTS ${CPACK_DEBIAN_FILES}/${package}.README.Debian)
        file(COPY_FILE ${CPACK_DEBIAN_FILES}/${package}.README.Debian ${doc}/README.Debian)
    endif()
    file(GLOB pages ${share}/man/man*/*)
    compress(${doc}/changelog ${pages})
endforeach()
