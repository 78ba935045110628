add_library(session_platform STATIC platform/config_file.cpp platform/data_decryption.cpp platform/json_generation.cpp)
target_include_directories(session_platform PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(session_platform PRIVATE project_options session_shell session_store OpenSSL::Crypto nlohmann_json::nlohmann_json)
