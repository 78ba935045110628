#include "service/persistent_properties.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <vector>

#include "frame/logger.h"
#include "frame/resource_names.h"
#include "platform/text_file.h"

namespace session_service {
namespace {

constexpr const char* propertyFile = "/var/nginx/SessionPersistentProp.conf";

void loadLine(redisContext* store, const std::string& line) {
    const std::size_t separator = line.find('=');
    if (line.empty() || line.front() == '#' || separator == std::string::npos ||
        separator + 1 == line.size()) {
        return;
    }
    const std::string name = line.substr(0, separator);
    std::vector<std::string> arguments{"HSET", serviceUri};
    store::appendWords(arguments, name);
    store::appendWords(arguments, line.substr(separator + 1));
    if (!store::sendForInteger(store, arguments)) {
        logger->debug("Failed to set persistent property %s.", name.c_str());
    }
}

}  // namespace

void loadPersistentProperties(redisContext* store) {
    const ReadOutcome outcome = readLines(propertyFile, [store](const std::string& line) {
        loadLine(store, line);
        return true;
    });
    if (outcome == ReadOutcome::failed) {
        logger->debug("Failed to get persistent properties: %s.", std::strerror(errno));
    }
}

void savePersistentProperties(const FieldMap& properties) {
    std::vector<std::string> lines;
    const ReadOutcome outcome = readLines(propertyFile, [&](const std::string& line) {
        const auto mentioned = std::find_if(
            properties.begin(), properties.end(),
            [&](const auto& property) { return line.find(property.first) != std::string::npos; });
        lines.push_back(mentioned == properties.end() ? line
                                                      : mentioned->first + '=' + mentioned->second);
        return true;
    });
    // What could not be read whole must not be truncated.
    if (outcome != ReadOutcome::complete) {
        return;
    }
    const FilePtr file(std::fopen(propertyFile, "we"));
    if (!file) {
        return;
    }
    for (const std::string& line : lines) {
        std::fwrite(line.data(), 1, line.size(), file.get());
        std::fputc('\n', file.get());
        std::fflush(file.get());
    }
}

}  // namespace session_service
