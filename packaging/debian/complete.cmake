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
    file(READ ${CPACK_DEBIAN_FILES}/changelog changelog)
    file(WRITE ${doc}/changelog "${CPACK_DEBIAN_CHANGELOG_ENTRY}${changelog}")
    if(EXISTS ${CPACK_DEBIAN_FILES}/${package}.README.Debian)
        file(COPY_FILE ${CPACK_DEBIAN_FILES}/${package}.README.Debian ${doc}/README.Debian)
    endif()
    if(EXISTS ${CPACK_DEBIAN_FILES}/${package}.lintian-overrides)
        file(MAKE_DIRECTORY ${share}/lintian/overrides)
        file(COPY_FILE ${CPACK_DEBIAN_FILES}/${package}.lintian-overrides
            ${share}/lintian/overrides/${package})
    endif()
    if(EXISTS ${share}/${package}/logrotate.conf)
        file(MAKE_DIRECTORY ${CPACK_TEMPORARY_DIRECTORY}/${package}/etc/logrotate.d)
        file(COPY_FILE ${share}/${package}/logrotate.conf
            ${CPACK_TEMPORARY_DIRECTORY}/${package}/etc/logrotate.d/${package})
    endif()
    if(EXISTS ${share}/${package}/examples)
        file(CREATE_LINK ../../${package}/examples ${doc}/examples SYMBOLIC)
    endif()
    file(GLOB pages ${share}/man/man*/*)
    compress(${doc}/changelog ${pages})
endforeach()
