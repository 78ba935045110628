#include "frame/logger.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <stdexcept>
#include <string_view>

#include "base/file_descriptor.h"
#include "base/local_time.h"
#include "base/number.h"
#include "base/shell.h"
#include "frame/configuration.h"
#include "platform/config_file.h"

namespace session_service {

Logger* logger = nullptr;

void startLog(const char* configPath) {
    logger = new Logger;
    logger->init(configPath);
    if (logger->isFileEnabled()) {
        logger->debug("SessionService log is starting ...");
    }
}

void endLog() {
    delete logger;
    logger = nullptr;
}

namespace {

constexpr std::array<const char*, 2> tags = {"[Error]", "[Debug]"};
constexpr mode_t logFileMode = 0666;

using SettingBuffer = std::array<char, settingBufferSize>;

bool readSetting(const char* configPath, const char* key, SettingBuffer& value) {
    value.fill('\0');
    return getPropertyValue(configPath, "=", key, value.data(), value.size()) == 0;
}

std::string formatMessage(const char* format, va_list arguments)
    __attribute__((format(printf, 1, 0)));

std::string formatMessage(const char* format, va_list arguments) {
    va_list measured;
    va_copy(measured, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, measured);
    va_end(measured);
    if (length <= 0) {
        return {};
    }
    std::string message(static_cast<std::size_t>(length), '\0');
    std::vsnprintf(message.data(), message.size() + 1, format, arguments);
    return message;
}

bool isControl(char character) {
    const auto code = static_cast<unsigned char>(character);
    return code < 0x20 || code == 0x7f;
}

// Names and addresses come from clients: none of them may begin a line of its own.
std::string escapeControls(const std::string& message) {
    std::string escaped;
    escaped.reserve(message.size());
    for (const char character : message) {
        if (isControl(character)) {
            std::array<char, sizeof("\\xff")> code{};
            std::snprintf(code.data(), code.size(), "\\x%02x",
                          static_cast<unsigned>(static_cast<unsigned char>(character)));
            escaped += code.data();
        } else {
            escaped += character;
        }
    }
    return escaped;
}

bool writeAll(int descriptor, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = ::write(descriptor, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
}

std::string composeDate(std::time_t now) {
    std::array<char, 64> date{};
    std::tm local{};
    if (toLocalTime(now, local) &&
        std::strftime(date.data(), date.size() - 1, "%b %e %T", &local) == 0) {
        std::fputs("Fail to compose date time string.\n", stderr);
    }
    return date.data();
}

}  // namespace

void Logger::init(const char* configPath) {
    SettingBuffer value;
    logFile.clear();

    if (readSetting(configPath, logSystemSetting, value)) {
        const std::string command = std::string("pidof ") + value.data();
        if (runCommand(command.c_str()) == 0) {
            std::fprintf(stderr, "%s is found. Messages will be written to stderr.\n",
                         value.data());
            return;
        }
    }
    if (readSetting(configPath, logFileSetting, value)) {
        logFile = value.data();
    }
    std::string backup;
    if (readSetting(configPath, logBackupSetting, value)) {
        backup = value.data();
    }
    if (readSetting(configPath, logSizeSetting, value) && value[0] != '\0') {
        const ParsedInt32 size = parseInt32(value.data());
        if (!size.value) {
            std::fprintf(stderr, "Error: %s\n", numberErrorText);
        }
        maxSize = std::max(size.value.value_or(0), 0);
    }
    if (readSetting(configPath, logLevelSetting, value) &&
        std::string_view(value.data()) == "error") {
        level = 0;
    }

    if (logFile.empty()) {
        std::fputs("Log filename is not specified. Messages will be written to stderr.\n", stderr);
        return;
    }
    if (!backup.empty()) {
        std::rename(logFile.c_str(), backup.c_str());
    }
    const FileDescriptor file(
        open(logFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, logFileMode));
    if (file) {
        fileEnabled = 1;
    } else {
        std::fprintf(stderr,
                     "Failed to create the log filename - %s Messages will be written to stderr.\n",
                     logFile.c_str());
    }
}

void Logger::error(const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    write(errorKind, format, arguments);
    va_end(arguments);
}

void Logger::debug(const char* format, ...) {
    if (level <= 0) {
        return;
    }
    va_list arguments;
    va_start(arguments, format);
    write(debugKind, format, arguments);
    va_end(arguments);
}

void Logger::write(Kind kind, const char* format, va_list arguments) {
    const std::string message = escapeControls(formatMessage(format, arguments));
    if (isFileEnabled() && writeToFile(kind, message)) {
        return;
    }
    std::fprintf(stderr, "%s: %s\n", tags[kind], message.c_str());
}

// False when the message could not be written.
bool Logger::writeToFile(Kind kind, const std::string& message) const {
    const std::time_t now = std::time(nullptr);
    const std::string date = composeDate(now);
    rotateIfNeeded(now);
    const FileDescriptor file(
        open(logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, logFileMode));
    if (!file) {
        return false;
    }
    // One write for the whole line: lines of several threads do not mix.
    return writeAll(file.get(),
                    date + ' ' + std::to_string(now) + ' ' + tags[kind] + ": " + message + '\n');
}

void Logger::rotateIfNeeded(std::time_t now) const {
    if (maxSize == 0 || fileEnabled == 0) {
        return;
    }
    off_t size = 0;
    {
        const FileDescriptor file(open(logFile.c_str(), O_RDONLY | O_CLOEXEC));
        if (!file) {
            return;
        }
        size = lseek(file.get(), 0, SEEK_END);
    }
    if (maxSize > size) {
        return;
    }
    try {
        const std::string rotated = logFile + std::to_string(now);
        std::rename(logFile.c_str(), rotated.c_str());
    } catch (const std::logic_error& failure) {
        std::fprintf(stderr, "Error: %s\n", failure.what());
    }
}

}  // namespace session_service
