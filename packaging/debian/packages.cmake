# The Debian packages; scripts/package makes them.

set(CPACK_GENERATOR DEB)
set(CPACK_VERBATIM_VARIABLES ON)
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
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${SESSION_SERVICE_ARCHITECTURE})
# A package of debug information for each that has programs, which are stripped of it.
set(CPACK_DEBIAN_DEBUGINFO_PACKAGE ON)
set(CPACK_OBJCOPY_EXECUTABLE ${CMAKE_OBJCOPY})
set(CPACK_READELF_EXECUTABLE ${CMAKE_READELF})
# Adds the files that only a Debian package needs.
set(CPACK_DEBIAN_FILES ${CMAKE_CURRENT_LIST_DIR})
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/complete.cmake)
# What depends on the version, which scripts/package gives.
set(CPACK_PROJECT_CONFIG_FILE ${CMAKE_CURRENT_LIST_DIR}/versions.cmake)

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

Installing this package lets nobody log in; session-service-setup(8) makes a
controller of the machine.")
set(CPACK_DEBIAN_SESSION-SERVICE_PACKAGE_DEPENDS
    "redis-server (>= 5:7), systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_SESSION-SERVICE_PACKAGE_RECOMMENDS "session-service-frontend, logrotate")
set(CPACK_DEBIAN_SESSION-SERVICE_PACKAGE_SUGGESTS krb5-user)
set(CPACK_DEBIAN_SESSION-SERVICE_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/session-service/conffiles
    ${CMAKE_CURRENT_LIST_DIR}/session-service/postinst
    ${CMAKE_CURRENT_LIST_DIR}/session-service/prerm
    ${CMAKE_CURRENT_LIST_DIR}/session-service/postrm)

debian_package(session-service-frontend "Redfish web front end of the session service"
"Translates between HTTPS and the session service's requests, with nginx and
its Lua module: a reference, for a controller that has no front end of its own.
Installing this package starts nothing; session-service-setup(8) does.")
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_DEPENDS
    "nginx, libnginx-mod-http-lua, lua-cjson, lua-luaossl, openssl, systemd | systemd-standalone-sysusers | systemd-sysusers")
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_RECOMMENDS "session-service, logrotate")
set(CPACK_DEBIAN_SESSION-SERVICE-FRONTEND_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/session-service-frontend/conffiles
    ${CMAKE_CURRENT_LIST_DIR}/session-service-frontend/postinst
    ${CMAKE_CURRENT_LIST_DIR}/session-service-frontend/prerm
    ${CMAKE_CURRENT_LIST_DIR}/session-service-frontend/postrm)

debian_package(session-service-demo "Demo of the Redfish session service"
"Runs the session service and everything that a controller has around it in a
private root file system, and shows the life of sessions, also with curl over
HTTPS. It does not change the machine that it runs on.")

include(CPack)
