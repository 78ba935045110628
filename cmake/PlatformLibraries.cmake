# The platform libraries: interfaces in src/platform/ that belong to the controller. Each has a
# default implementation here; a controller that has its own names it (a file, or a name that the
# linker finds), and the default is not built.
set(SESSION_SERVICE_CONFIG_LIBRARY "" CACHE STRING "Own configuration-file library (platform/config_file.h)")
set(SESSION_SERVICE_DECRYPTION_LIBRARY "" CACHE STRING "Own data-decryption library (platform/data_decryption.h)")
set(SESSION_SERVICE_JSON_LIBRARY "" CACHE STRING "Own JSON generation library (platform/json_generation.h)")

# platform_library(NAME OWN SOURCE LIBRARY...): the target NAME, which is the library OWN or, when
# that is empty, built from SOURCE with the libraries that the default needs.
function(platform_library name own source)
    if(own)
        add_library(${name} INTERFACE)
        target_link_libraries(${name} INTERFACE ${own})
        target_include_directories(${name} INTERFACE ${CMAKE_CURRENT_SOURCE_DIR})
    else()
        add_library(${name} STATIC ${source})
        target_link_libraries(${name} PRIVATE shipped_options ${ARGN})
        target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    endif()
endfunction()

platform_library(platform_config "${SESSION_SERVICE_CONFIG_LIBRARY}"
    platform/config_file.cpp session_base)
platform_library(platform_decryption "${SESSION_SERVICE_DECRYPTION_LIBRARY}"
    platform/data_decryption.cpp OpenSSL::Crypto)
platform_library(platform_json "${SESSION_SERVICE_JSON_LIBRARY}"
    platform/json_generation.cpp session_store nlohmann_json::nlohmann_json)

add_library(session_platform INTERFACE)
target_link_libraries(session_platform INTERFACE platform_config platform_decryption platform_json)
