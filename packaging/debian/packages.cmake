# The Debian packages; scripts/package makes them.
set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_COMPONENTS_ALL session-service session-service-frontend)
if(TARGET session-service-demo)
    list(APPEND CPACK_COMPONENTS_ALL session-service-demo)
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER
    "Seed e1f2f721 maintainers <maintainers@users.noreply.c-seed-e1f2f721.example>")
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "aarch64")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
else()
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE amd64)
endif()
# Adds the files that only a Debian package needs.
set(CPACK_DEBIAN_FILES ${CMAKE_CURRENT_LIST_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/complete.cmake)

# debian_package(COMPONENT SUMMARY DESCRIPTION): sets the variables that CPack reads.
function(debian_package component summary description)
    string(TOUPPER ${component} name)
    set(CPACK_DEBIAN_${name}_PACKAGE_NAME ${component} PARENT_SCOPE)
    set(CPACK_DEBIAN_${name}_DESCRIPTION "${summary}\n${description}" PARENT_SCOPE)
endfunction()
# CPack would prepend it to each description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")

debian_package(session-service "Redfish session service of a server-management controller"
"Logs the clients of a controller's Redfish interface in and out, expires idle
sessions and applies changes to the settings of the session service. A web
front end passes requests through a Redis server on the same machine; PAM
checks the users.

The service starts once /etc/pam.d/q73 says who may log in. This package leaves
that file to the controller.")
set(CPACK_DEBIAN_SESSION-SERVICE_PACKAGE_RECOMMENDS redis-server)
set(CPACK_DEBIAN_SESSION-SERVICE_PACKAGE_SUGGESTS "session-service-frontend, krb5-user")
set(CPACK_DEBIAN_SESSION-SERVICE_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/postinst
    ${CMAKE_CURRENT_LIST_DIR}/prerm
    ${CMAKE_CURRENT_LIST_DIR}/postrm)

debian_package(session-service-frontend "Redfish web front end of the session service"
"Translates between HTTPS and the session service's requests, with nginx and
its Lua module: a reference, to be installed on a controller that has no
front end of its own.")
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_DEPENDS
    "nginx, libnginx-mod-http-lua, lua-cjson, lua-luaossl, lua-nginx-redis")
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_RECOMMENDS session-service)
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_SUGGESTS logrotate)

debian_package(session-service-demo "Demo of the Redfish session service"
"Runs the session service and everything that a controller has around it in a
private root file system, and shows the life of sessions, also with curl over
HTTPS. It does not change the machine that it runs on.")
set(CPACK_DEBIAN_SESSION-SERVICE-DEMO_PACKAGE_DEPENDS
    "session-service (= ${PROJECT_VERSION}), session-service-frontend (= ${PROJECT_VERSION}), bubblewrap, redis-server, openssl, curl")

include(CPack)
