// Reading text files line by line, over descriptors that no child inherits.
#pragma once

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

namespace session_service {

struct CloseFile {
    void operator()(std::FILE* file) const noexcept { std::fclose(file); }
};
using FilePtr = std::unique_ptr<std::FILE, CloseFile>;

enum class ReadStatus {
    complete,   // the end was reached, or `handle` returned false
    notOpened,  // nothing was read
    failed,     // reading broke off
};

struct ReadOutcome {
    ReadStatus status;
    int error = 0;  // unless complete: the errno that says why
};

// Hands each line, without its line feed, to `handle` until that returns false.
ReadOutcome readLines(const char* path, const std::function<bool(const std::string&)>& handle);

}  // namespace session_service
