#include "platform/json_generation.h"

#include <cstring>
#include <exception>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "store/commands.h"

namespace {

using nlohmann::json;
namespace store = session_service::store;

constexpr int maxLevels = 32;
// A few dozen hashes that each name the next one twice ask for billions of reads, and a
// text that many lists name for all memory. No real document comes near these bounds.
constexpr int maxResources = 1024;
constexpr std::size_t maxBytes = std::size_t{4} * 1024 * 1024;

[[noreturn]] void failTooDeep() {
    throw std::runtime_error("nested too deeply");
}

// One conversion: where it reads, and how much more.
struct Conversion {
    redisContext* connection;
    int resourcesLeft = maxResources;
    std::size_t bytesLeft = maxBytes;
};

void enterResource(Conversion& conversion, int level) {
    if (level > maxLevels) {
        failTooDeep();
    }
    if (conversion.resourcesLeft == 0) {
        throw std::runtime_error("too many resources");
    }
    --conversion.resourcesLeft;
}

void takeText(Conversion& conversion, const std::string& text) {
    if (text.size() > conversion.bytesLeft) {
        throw std::runtime_error("too much text");
    }
    conversion.bytesLeft -= text.size();
}

// A value as JSON where it parses as JSON, as a JSON string otherwise. `level` is that of
// the object or array that holds it.
json parseValue(const std::string& text, int level) {
    bool tooDeep = false;
    json value = json::parse(
        text,
        [&](int depth, json::parse_event_t event, json&) {
            const bool opens = event == json::parse_event_t::object_start ||
                               event == json::parse_event_t::array_start;
            tooDeep = tooDeep || (opens && level + depth + 1 > maxLevels);
            return !tooDeep;
        },
        false);
    if (tooDeep) {
        failTooDeep();
    }
    return value.is_discarded() ? json(text) : value;
}

json objectOf(Conversion& conversion, const std::string& key, int level);
json arrayOf(Conversion& conversion, const std::string& key, int level);

json objectRefOf(const std::string& uri, int level) {
    if (level > maxLevels) {
        failTooDeep();
    }
    return {{"@odata.id", uri}};
}

// Converts what a token names. False when it is no token.
bool convertToken(Conversion& conversion, const std::string& token, const std::string& source,
                  int level, json& value) {
    if (token == "&&Object") {
        value = objectOf(conversion, source, level);
    } else if (token == "&&Array") {
        value = arrayOf(conversion, source, level);
    } else if (token == "&&ObjectRef") {
        value = objectRefOf(source, level);
    } else {
        return false;
    }
    return true;
}

// The text's first word and what follows the blank after it.
std::pair<std::string, std::string> splitAtBlank(const std::string& text) {
    const std::size_t blank = text.find(' ');
    if (blank == std::string::npos) {
        return {text, {}};
    }
    return {text.substr(0, blank), text.substr(blank + 1)};
}

// Adds a field whose name is "TOKEN NAME SOURCE"; any other one is internal.
void addTokenField(Conversion& conversion, const std::string& field, int level, json& object) {
    const auto [token, rest] = splitAtBlank(field);
    const auto [name, source] = splitAtBlank(rest);
    json value;
    if (!name.empty() && !source.empty() && convertToken(conversion, token, source, level, value)) {
        object[name] = std::move(value);
    }
}

json objectOf(Conversion& conversion, const std::string& key, int level) {
    enterResource(conversion, level);
    session_service::FieldMap fields;
    if (!store::hgetall(conversion.connection, key, fields) || fields.empty()) {
        throw std::runtime_error("no such hash");
    }
    for (const auto& [field, text] : fields) {
        takeText(conversion, field);
        takeText(conversion, text);
    }
    json object = json::object();
    for (const auto& [field, text] : fields) {
        if (field.rfind("&&", 0) == 0) {
            addTokenField(conversion, field, level + 1, object);
        } else {
            object[field] = parseValue(text, level);
        }
    }
    return object;
}

json arrayOf(Conversion& conversion, const std::string& key, int level) {
    enterResource(conversion, level);
    std::vector<std::string> elements;
    if (!store::lrange(conversion.connection, key, elements)) {
        throw std::runtime_error("no reply");
    }
    for (const std::string& element : elements) {
        takeText(conversion, element);
    }
    json array = json::array();
    for (const std::string& element : elements) {
        const auto [token, source] = splitAtBlank(element);
        json value;
        if (source.empty() || !convertToken(conversion, token, source, level + 1, value)) {
            value = parseValue(element, level);
        }
        array.push_back(std::move(value));
    }
    return array;
}

// The text that `convert` gives, on the C heap; null when it fails.
template <typename Convert>
char* generate(Convert convert) {
    try {
        // Stored text may be no UTF-8; JSON text always is.
        const json value = convert();
        return strdup(value.dump(-1, ' ', false, json::error_handler_t::replace).c_str());
    } catch (const std::exception&) {
        return nullptr;
    }
}

}  // namespace

char* convertRedisDataToJsonString(const char* source) {
    return generate([=] {
        const session_service::ConnectionPtr connection = store::connect();
        if (!connection) {
            throw std::runtime_error("no connection");
        }
        Conversion conversion{connection.get()};
        return objectOf(conversion, source, 1);
    });
}

char* convertArrayDataToJsonString(redisContext* connection, const char* source) {
    return generate([=] {
        Conversion conversion{connection};
        return arrayOf(conversion, source, 1);
    });
}

char* convertObjectRefDataToJsonString(redisContext* /*connection*/, const char* source) {
    return generate([=] { return objectRefOf(source, 1); });
}
