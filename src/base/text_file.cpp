#include "base/text_file.h"

#include <sys/types.h>

#include <cerrno>
#include <cstdlib>

namespace session_service {
namespace {

// The buffer that getline fills and grows.
struct LineBuffer {
    char* text = nullptr;
    std::size_t size = 0;

    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { std::free(text); }
};

}  // namespace

ReadOutcome readLines(const char* path, const std::function<bool(const std::string&)>& handle) {
    const FilePtr file(std::fopen(path, "re"));
    if (!file) {
        return {ReadStatus::notOpened, errno};
    }
    LineBuffer buffer;
    ssize_t length = 0;
    while ((length = getline(&buffer.text, &buffer.size, file.get())) >= 0) {
        std::string line(buffer.text, static_cast<std::size_t>(length));
        if (line.ends_with('\n')) {
            line.pop_back();
        }
        if (!handle(line)) {
            return {ReadStatus::complete};
        }
    }
    if (std::feof(file.get()) != 0) {
        return {ReadStatus::complete};
    }
    return {ReadStatus::failed, errno};
}

}  // namespace session_service
