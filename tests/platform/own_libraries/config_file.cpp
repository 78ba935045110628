// A configuration-file library that reads no file: it holds one setting.
#include "platform/config_file.h"

#include <cstdio>
#include <string_view>

int getPropertyValue(const char* /*file*/, const char* /*separator*/, const char* key, char* buffer,
                     std::size_t bufferSize) {
    if (std::string_view(key) != "LOG_FILE") {
        return 1;
    }
    std::snprintf(buffer, bufferSize, "/tmp/log/chosen-by-own-library.log");
    return 0;
}

std::string getConfigValue(const char* /*file*/, const char* /*key*/, std::size_t /*bufferSize*/) {
    return {};
}
