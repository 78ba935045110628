// What a piece of code writes to a standard stream. The descriptors stay as they are: what the
// sanitizers report is never captured.
#pragma once

#include <cstdio>
#include <string>

namespace session_service {

// Stands in for the stream (stdout, stderr) while it lives.
class CapturedStream {
  public:
    explicit CapturedStream(std::FILE*& captured);
    CapturedStream(const CapturedStream&) = delete;
    CapturedStream& operator=(const CapturedStream&) = delete;
    ~CapturedStream();

    [[nodiscard]] std::string written() const;

  private:
    std::FILE*& stream;
    std::FILE* const original;
    char* text = nullptr;
    std::size_t size = 0;
};

// Sends the log to standard error. Must have been called before code that logs.
void openLog();

// A line of that log: any control character in the message is escaped.
std::string errorLine(const std::string& message);
std::string debugLine(const std::string& message);

// Whether the text is nothing but such lines.
bool isLog(const std::string& text);

}  // namespace session_service
