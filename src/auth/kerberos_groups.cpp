#include "auth/kerberos_groups.h"

#include <string_view>

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

std::string composeKadminCommand(const char* userName, const char* password) {
    constexpr std::string_view start = "kadmin -p ";
    constexpr std::string_view withPassword = " -w ";
    constexpr std::string_view query = " getstrs ";
    std::string command;
    // Growing would leave copies of the password behind.
    command.reserve(start.size() + withPassword.size() + query.size() + 2 * quotedLength(userName) +
                    quotedLength(password));
    command += start;
    appendQuoted(command, userName);
    command += withPassword;
    appendQuoted(command, password);
    command += query;
    appendQuoted(command, userName);
    return command;
}

}  // namespace session_service
