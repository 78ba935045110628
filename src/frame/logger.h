// The daemon's one diagnostic channel: a text file that is rotated by size, or standard
// error when no file can be used or a system log collector is running.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <ctime>
#include <string>

namespace session_service {

// The keys of its settings in the configuration file.
inline constexpr const char* logSystemSetting = "LOG_SYSTEM";
inline constexpr const char* logFileSetting = "LOG_FILE";
inline constexpr const char* logBackupSetting = "LOG_FILE_BAK";
inline constexpr const char* logSizeSetting = "LOG_FILE_SIZE";
inline constexpr const char* logLevelSetting = "LOG_LEVEL";

// One instance exists for the process, created first and destroyed last. The settings
// are written by init, before any other thread exists; every other operation may be
// called from any thread at any time. No operation fails its caller: what cannot be
// written to the file goes to standard error.
class Logger {
  public:
    // Reads the settings from the file, moves the previous log to its backup name and creates the
    // log anew.
    void init(const char* configPath);

    // True once the log file could be created at start.
    [[nodiscard]] bool isFileEnabled() const noexcept { return fileEnabled != 0; }

    // Writes one line, whatever the level. The message is one line even when its
    // arguments hold control characters: those are written as \xNN.
    void error(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // The same, unless LOG_LEVEL is "error".
    void debug(const char* format, ...) __attribute__((format(printf, 2, 3)));

  private:
    enum Kind { errorKind = 0, debugKind = 1 };

    void write(Kind kind, const char* format, va_list arguments)
        __attribute__((format(printf, 3, 0)));
    [[nodiscard]] bool writeToFile(Kind kind, const std::string& message) const;
    void rotateIfNeeded(std::time_t now) const;

    std::int32_t fileEnabled = 0;
    std::string logFile;
    std::int64_t maxSize = 0;  // bytes; 0: no rotation
    std::int32_t level = 1;    // 1: debug messages are written, 0: errors only
};

// The process's logger; set before any other thread exists.
extern Logger* logger;

// Creates the logger with the settings of that file and, when the log is a file, writes its first
// line.
void startLog(const char* configPath);
// Destroys the logger. No other thread may use it any more.
void endLog();

}  // namespace session_service
