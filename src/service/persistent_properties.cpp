#include "service/persistent_properties.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

#include "base/text_file.h"
#include "frame/logger.h"
#include "store/resource_names.h"

namespace session_service {
namespace {

void loadLine(redisContext* connection, const std::string& text) {
    const std::string line = text.substr(0, text.find('\0'));
    const std::size_t separator = line.find('=');
    if (line.empty() || line.front() == '#' || separator == std::string::npos ||
        separator + 1 == line.size()) {
        return;
    }
    const std::string name = line.substr(0, separator);
    std::vector<std::string> arguments{"HSET", serviceUri};
    store::appendWords(arguments, name);
    store::appendWords(arguments, line.substr(separator + 1));
    if (!store::sendForInteger(connection, arguments)) {
        logger->debug("Failed to set persistent property %s.", name.c_str());
    }
}

// One line, whatever the value holds: a second one would be a property of its own.
std::string formatLine(const FieldMap::value_type& property) {
    const auto& [name, value] = property;
    return name + '=' + value.substr(0, value.find('\n'));
}

}  // namespace

void loadPersistentProperties(redisContext* connection) {
    const ReadOutcome outcome = readLines(propertyFile, [connection](const std::string& line) {
        loadLine(connection, line);
        return true;
    });
    if (outcome.status == ReadStatus::failed) {
        logger->debug("Failed to get persistent properties: %s.", std::strerror(outcome.error));
    }
}

void savePersistentProperties(const FieldMap& properties) {
    std::vector<std::string> lines;
    const ReadOutcome outcome = readLines(propertyFile, [&](const std::string& line) {
        const auto mentioned = std::find_if(
            properties.begin(), properties.end(),
            [&](const auto& property) { return line.find(property.first) != std::string::npos; });
        lines.push_back(mentioned == properties.end() ? line : formatLine(*mentioned));
        return true;
    });
    // What could not be read whole must not be truncated.
    if (outcome.status != ReadStatus::complete) {
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
    // A power cut right after the change was answered must not take it back.
    fsync(fileno(file.get()));
}

}  // namespace session_service
