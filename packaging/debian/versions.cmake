# Read when packages are made: their version is known then.
if(NOT CPACK_DEBIAN_PACKAGE_VERSION)
    set(CPACK_DEBIAN_PACKAGE_VERSION ${CPACK_PACKAGE_VERSION})
endif()
set(CPACK_DEBIAN_SESSION-SERVICE-DEMO_PACKAGE_DEPENDS
    "session-service (= ${CPACK_DEBIAN_PACKAGE_VERSION}), session-service-frontend (= ${CPACK_DEBIAN_PACKAGE_VERSION}), bubblewrap, redis-server, openssl, curl")
