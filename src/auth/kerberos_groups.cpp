#include "auth/kerberos_groups.h"

#include <string_view>

#include "auth/group_settings.h"
#include "base/secret.h"
#include "base/shell.h"
#include "frame/logger.h"

namespace session_service {
namespace {

constexpr std::string_view escapedQuote = "'\\''";

std::size_t quotedLength(std::string_view text) {
    std::size_t length = 2;
    for (const char character : text) {
        length += character == '\'' ? escapedQuote.size() : 1;
    }
    return length;
}

void appendQuoted(std::string& command, std::string_view text) {
    command += '\'';
    for (const char character : text) {
        if (character == '\'') {
            command += escapedQuote;
        } else {
            command += character;
        }
    }
    command += '\'';
}

}  // namespace

std::optional<std::int32_t> privilegeFromKerberos(const std::string& userName,
                                                  const std::string& password) {
    const SecretText command{composeKadminCommand(userName, password)};
    return privilegeAmongAttributes(executeCommand(command.text));
}

std::string composeKadminCommand(const std::string& userName, const std::string& password) {
    constexpr std::string_view start = "kadmin -p ";
    constexpr std::string_view withPassword = " -w ";
    constexpr std::string_view query = " getstrs ";
    // PAM has seen both up to their first zero byte, and so does the tool.
    const std::string_view name(userName.c_str());
    const std::string_view secret(password.c_str());
    std::string command;
    // Growing would leave copies of the password behind.
    command.reserve(start.size() + withPassword.size() + query.size() + 2 * quotedLength(name) +
                    quotedLength(secret));
    command += start;
    appendQuoted(command, name);
    command += withPassword;
    appendQuoted(command, secret);
    command += query;
    appendQuoted(command, name);
    return command;
}

std::string executeCommand(const std::string& commandLine) {
    std::string output;
    const bool started = readCommand(commandLine.c_str(), [&](std::string_view chunk) {
        output += chunk;
        return true;
    });
    if (!started) {
        logger->error("Failed to execute command.");
    }
    return output;
}

std::optional<std::int32_t> privilegeAmongAttributes(const std::string& attributes) {
    return privilegeOfFirstRole([&](const std::string& group) {
        return attributes.find(groupSettings.attribute + ": " + group) != std::string::npos;
    });
}

}  // namespace session_service
