// Captures what a piece of code writes to a standard stream. The descriptors stay as they are:
// what the sanitizers report is never captured.
#pragma once

#include <cstdio>
#include <string>

namespace session_service {

// Replaces the stream (stdout, stderr) while it lives.
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

}  // namespace session_service
