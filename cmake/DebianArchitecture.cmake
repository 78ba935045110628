# SESSION_SERVICE_ARCHITECTURE: what the compiler compiles for, as Debian calls it; empty where the
# compiler or the machine is not Debian's.
separate_arguments(flags UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
execute_process(COMMAND ${CMAKE_CXX_COMPILER} ${flags} -print-multiarch
    OUTPUT_VARIABLE triplet OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
execute_process(COMMAND dpkg-architecture --host-type "${triplet}" --force --query DEB_HOST_ARCH
    OUTPUT_VARIABLE SESSION_SERVICE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
