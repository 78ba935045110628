#include "protocol/body_conversion.h"

#include <cstdlib>
#include <memory>

#include "frame/logger.h"
#include "platform/json_generation.h"

namespace session_service {
namespace {

struct Free {
    void operator()(char* text) const noexcept { std::free(text); }
};

}  // namespace

void convertBody(redisContext* connection, FieldMap& body) {
    FieldMap properties;
    for (const auto& [name, value] : body) {
        std::string property;
        std::string json;
        if (name.rfind("&&", 0) != 0) {
            properties[name] = value;
        } else if (convertTokenField(connection, name, property, json)) {
            properties[property] = json;
        }
    }
    body = std::move(properties);
}

bool convertTokenField(redisContext* connection, const std::string& fieldName,
                       std::string& property, std::string& json) {
    const std::vector<std::string> words = splitWords(fieldName, ' ');
    if (words.size() != 3) {
        logger->error("return false: %zu", words.size());
        return false;
    }
    const std::string& token = words[0];
    const char* source = words[2].c_str();
    std::unique_ptr<char, Free> converted;
    if (token == "&&Object") {
        converted.reset(convertRedisDataToJsonString(source));
    } else if (token == "&&Array") {
        converted.reset(convertArrayDataToJsonString(connection, source));
    } else if (token == "&&ObjectRef") {
        converted.reset(convertObjectRefDataToJsonString(nullptr, source));
    } else {
        logger->error("Not containing recognized token %s", fieldName.c_str());
        return false;
    }
    if (!converted) {
        return false;
    }
    property = words[1];
    json = converted.get();
    return true;
}

std::vector<std::string> splitWords(const std::string& text, char separator) {
    std::vector<std::string> words;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find(separator, start);
        words.push_back(text.substr(start, end - start));
        if (end == std::string::npos) {
            return words;
        }
        start = end + 1;
    }
}

}  // namespace session_service
