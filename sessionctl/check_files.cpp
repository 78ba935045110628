#include "sessionctl/check_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include "auth/group_settings.h"
#include "base/file_descriptor.h"
#include "base/number.h"
#include "base/secret.h"
#include "base/shell.h"
#include "base/text_file.h"
#include "events/audit_log.h"
#include "events/life_cycle.h"
#include "frame/configuration.h"
#include "frame/logger.h"
#include "platform/config_file.h"
#include "sessionctl/check_front_end.h"
#include "sessionctl/output.h"
#include "store/commands.h"
#include "store/resource_names.h"

namespace session_service::console {
namespace {

using Lines = std::vector<std::string>;

// The lines of the file. Empty, with the reason reported, when it cannot be read.
std::optional<Lines> readFile(Report& report, const char* path, Result severity,
                              const char* consequence) {
    Lines lines;
    const ReadOutcome outcome = readLines(path, [&](const std::string& line) {
        lines.push_back(line);
        return true;
    });
    if (outcome.status == ReadStatus::complete) {
        return lines;
    }
    const std::string text = std::string(std::strerror(outcome.error)) + ": " + consequence;
    if (severity == Result::warning) {
        report.warn(path, text);
    } else {
        report.fail(path, text);
    }
    return std::nullopt;
}

bool contains(std::string_view line, std::string_view text) {
    return line.find(text) != std::string_view::npos;
}

bool isComment(std::string_view line) {
    return line.starts_with('#');
}

std::string lineLabel(std::size_t index) {
    return "line " + std::to_string(index + 1);
}

// The setting as the daemon reads it; empty when the file does not have it.
std::optional<std::string> readSetting(Report& report, const char* path, const char* key) {
    std::array<char, 2 * settingBufferSize> value{};
    if (getPropertyValue(path, "=", key, value.data(), value.size()) != 0) {
        return std::nullopt;
    }
    std::string text = value.data();
    if (text.size() >= settingBufferSize) {
        report.warn(path, std::string(key) + " is longer than " +
                              std::to_string(settingBufferSize - 1) +
                              " characters: the rest is cut off.");
        text.resize(settingBufferSize - 1);
    }
    return text;
}

// Why the log file cannot be written; empty when it can.
std::string logFileError(const std::string& logFile) {
    const FileDescriptor file(open(logFile.c_str(), O_WRONLY | O_APPEND | O_NONBLOCK | O_CLOEXEC));
    if (file) {
        return {};
    }
    if (errno == ENOENT) {
        const std::size_t slash = logFile.rfind('/');
        const std::string folder =
            slash == std::string::npos ? "." : logFile.substr(0, std::max<std::size_t>(slash, 1));
        if (access(folder.c_str(), W_OK | X_OK) == 0) {
            return {};
        }
    }
    return std::strerror(errno);
}

// Looks for the log collector in the way in which the daemon does at its start.
bool isProcessRunning(const std::string& collector) {
    bool found = false;
    return !collector.empty() &&
           readCommand(("pidof " + collector).c_str(),
                       [&](std::string_view /*numbers*/) { return found = true; }) &&
           found;
}

void checkLog(Report& report, const char* path) {
    // With a log collector the other settings of the log are not read.
    if (isProcessRunning(readSetting(report, path, logSystemSetting).value_or(""))) {
        return;
    }
    const std::string logFile = readSetting(report, path, logFileSetting).value_or("");
    // Without a log file the log goes to standard error, which a supervisor keeps.
    if (const std::string fault = logFile.empty() ? "" : logFileError(logFile); !fault.empty()) {
        report.fail(path, std::string(logFileSetting) + ": " + escaped(logFile) +
                              " cannot be written (" + fault +
                              "): the log goes to standard error.");
    }
    const std::string size = readSetting(report, path, logSizeSetting).value_or("");
    const std::int32_t bytes = parseInt32(size).value.value_or(-1);
    if (!size.empty() && bytes < 0) {
        report.warn(path, std::string(logSizeSetting) + " is no number: the log is not rotated.");
    } else if (!size.empty() && !isPlainNumber(size, bytes)) {
        report.warn(
            path, std::string(logSizeSetting) + " counts as " + std::to_string(bytes) + " bytes.");
    }
    const std::string level = readSetting(report, path, logLevelSetting).value_or("debug");
    if (level != "error" && level != "debug") {
        report.warn(path,
                    std::string(logLevelSetting) + " is neither error nor debug: it means debug.");
    }
}

// Whether the line has a value: what stands between "=" and ";".
bool hasValue(const std::string& line) {
    const std::size_t separator = line.find('=');
    return separator != std::string::npos && line.find(';', separator) != std::string::npos;
}

void checkGroupLine(Report& report, const char* path, const std::string& line,
                    const std::string& where) {
    for (const char* key : {attributeKey, administratorKey, operatorKey, userKey}) {
        if (!contains(line, key)) {
            continue;
        }
        if (isComment(line) && hasValue(line)) {
            report.warn(path, where + " counts for " + key + " although it is a comment.");
        } else if (!isComment(line) && !hasValue(line)) {
            report.warn(path, where + " is ignored: it must read " + key + "=VALUE;");
        }
    }
    const std::string_view enabled = groupingEnabledText;
    const std::string_view key = enabled.substr(0, enabled.find('='));
    if (!contains(line, key)) {
        return;
    }
    if (isComment(line) && contains(line, enabled)) {
        report.warn(path,
                    where + " switches " + std::string(key) + " on although it is a comment.");
    } else if (!isComment(line) && !contains(line, enabled) &&
               !contains(line, std::string(key) + "=0;")) {
        report.warn(path, where + " leaves " + std::string(key) + " off: on is exactly " +
                              groupingEnabledText);
    }
}

std::vector<std::string> splitWords(const std::string& text) {
    std::vector<std::string> words;
    store::appendWords(words, text);
    return words;
}

// Whether the daemon reads the line as the property, with a number of seconds or, as installed,
// no value.
bool setsSeconds(const std::string& line, const std::string& property) {
    const std::size_t separator = line.find('=');
    if (separator == std::string::npos ||
        splitWords(line.substr(0, separator)) != std::vector{property}) {
        return false;
    }
    const std::vector<std::string> value = splitWords(line.substr(separator + 1));
    const std::int32_t seconds = value.size() == 1 ? parseInt32(value[0]).value.value_or(0) : 0;
    return separator + 1 == line.size() || (seconds > 0 && isPlainNumber(value[0], seconds));
}

}  // namespace

void checkConfiguration(Report& report, const char* path) {
    if (readFile(report, path, Result::warning,
                 "the log goes to standard error, and there are no audit entries.")) {
        checkLog(report, path);
        const std::string events = readSetting(report, path, eventSetting).value_or("true");
        if (events != "true" && events != "false") {
            report.warn(path, std::string(eventSetting) +
                                  " is neither true nor false: it means "
                                  "true.");
        }
        if (readSetting(report, path, auditSetting).value_or("").empty()) {
            report.warn(path,
                        std::string(auditSetting) + " is not given: there are no audit entries.");
        }
    }
    checkOwnership(report, path);
    report.conclude(path, "log, events and audit entries are set up");
}

void checkGroups(Report& report, const char* path) {
    if (const auto lines = readFile(report, path, Result::warning, "the built-in groups count.")) {
        for (std::size_t i = 0; i < lines->size(); ++i) {
            checkGroupLine(report, path, (*lines)[i], lineLabel(i));
        }
    }
    checkOwnership(report, path);
    report.conclude(path, "well-formed");
}

void checkPrivileges(Report& report, const char* path) {
    if (const auto lines =
            readFile(report, path, Result::warning, "the built-in privileges count.")) {
        for (std::size_t i = 0; i < lines->size(); ++i) {
            const std::string& line = (*lines)[i];
            for (const std::string_view key :
                 {administratorPrivilegeKey, operatorPrivilegeKey, userPrivilegeKey}) {
                if (!contains(line, key)) {
                    continue;
                }
                if (!parsePrefixedInt64(line.substr(key.size())).hasDigits) {
                    report.fail(path, lineLabel(i) + " takes all privileges away: it must read " +
                                          std::string(key) + "NUMBER, from the line's start.");
                } else if (!line.starts_with(key)) {
                    report.warn(
                        path, lineLabel(i) + " is misread: it must start with " + std::string(key));
                }
                break;
            }
        }
    }
    checkOwnership(report, path);
    report.conclude(path, "well-formed");
}

void checkPersistentProperties(Report& report, const char* path) {
    if (const auto lines =
            readFile(report, path, Result::warning, "changed settings do not outlive the store.")) {
        const std::string name = sessionTimeoutField;
        bool mentioned = false;
        for (std::size_t i = 0; i < lines->size(); ++i) {
            const std::string& line = (*lines)[i];
            if (!contains(line, name)) {
                continue;
            }
            mentioned = true;
            if (isComment(line)) {
                report.warn(path, lineLabel(i) + " mentions " + name +
                                      " in a comment, which the next change overwrites.");
            } else if (!setsSeconds(line, name)) {
                report.fail(path, lineLabel(i) + " must read " + name + "=SECONDS.");
            }
        }
        if (!mentioned) {
            report.warn(path, "No line gives " + name +
                                  ": a changed one does not outlive the "
                                  "store.");
        }
        if (access(path, W_OK) != 0) {
            report.fail(
                path, std::string(std::strerror(errno)) + ": changed settings cannot be written.");
        }
    }
    checkOwnership(report, path);
    report.conclude(path, "readable and writable");
}

void checkStoreFiles(Report& report, const std::string& socket) {
    const std::string folder = socket.substr(0, socket.rfind('/') + 1);
    struct stat folderStatus {};
    // What is in a folder that is closed to others has not to be closed itself.
    if (folder.empty() || stat(folder.c_str(), &folderStatus) != 0 ||
        (folderStatus.st_mode & S_IXOTH) == 0) {
        return;
    }
    struct stat status {};
    if (stat(socket.c_str(), &status) == 0 && (status.st_mode & S_IWOTH) != 0) {
        report.fail(socket, "others may use it: \"unixsocketperm 770\" or less.");
    }
    const std::string password = folder + "redis.requirepass";
    if (stat(password.c_str(), &status) == 0 && (status.st_mode & (S_IROTH | S_IWOTH)) != 0) {
        report.fail(password, "others may use it: chmod 640, and change the password.");
    }
    report.conclude(socket, "not for others");
}

void checkOwnership(Report& report, const char* path) {
    struct stat status {};
    if (stat(path, &status) != 0) {
        return;
    }
    const bool group = (status.st_mode & S_IWGRP) != 0 && status.st_gid != 0;
    if (group || (status.st_mode & S_IWOTH) != 0) {
        report.fail(path, std::string(group ? "a group" : "others") + " may change it: chmod 644.");
    }
}

void checkKeyFile(Report& report, const char* path) {
    constexpr const char* consequence =
        "all passwords read as empty. The front end makes the file; is it running?";
    std::optional<Lines> lines = readFile(report, path, Result::failed, consequence);
    if (lines) {
        constexpr std::size_t keyDigits = 64;
        const auto isDigit = [](unsigned char digit) { return std::isxdigit(digit) != 0; };
        const bool wellFormed = lines->size() == 1 && lines->front().size() == keyDigits &&
                                std::all_of(lines->front().begin(), lines->front().end(), isDigit);
        if (!SESSIONCTL_OWN_DECRYPTION && !wellFormed) {
            report.fail(path,
                        "not " + std::to_string(keyDigits) + " hexadecimal digits: " + consequence);
        }
        std::for_each(lines->begin(), lines->end(), wipe);
        struct stat status {};
        if (stat(path, &status) == 0 && (status.st_mode & S_IRWXO) != 0) {
            report.fail(path, "others may use it: chmod 600, and change the key.");
        } else if ((status.st_mode & S_IRWXG) != 0 && !isGroupOfFrontEnd(status.st_gid)) {
            report.warn(path, "a group may use it: chmod 600 unless the front end needs that.");
        }
        if (!frontEndCanRead(path)) {
            report.fail(path, "the web front end cannot read it: start that again.");
        }
    }
    report.conclude(path, "well-formed, for nobody else");
}

}  // namespace session_service::console
