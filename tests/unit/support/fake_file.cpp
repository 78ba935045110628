#include "support/fake_file.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace {

session_service::FakeFile* current = nullptr;

}  // namespace

// The names are the linker's. The C library has fopen under two of them; which one is called
// depends on macros.
extern "C" {
std::FILE* __real_fopen(const char* path, const char* mode);

std::FILE* __wrap_fopen(const char* path, const char* mode) {
    std::FILE* file = current ? current->open(path, mode) : nullptr;
    return file ? file : __real_fopen(path, mode);
}

std::FILE* __wrap_fopen64(const char* path, const char* mode) {
    return __wrap_fopen(path, mode);
}
}

namespace session_service {

FakeFile::FakeFile(std::string path, std::string replacement)
    : replacedPath(std::move(path)), otherFile(std::move(replacement)) {
    current = this;
}

FakeFile::FakeFile(std::string path, std::string text, int error)
    : replacedPath(std::move(path)), remainingText(std::move(text)), failure(error) {
    current = this;
}

FakeFile::~FakeFile() {
    current = nullptr;
}

std::FILE* FakeFile::open(const std::string& path, const char* mode) {
    if (path != replacedPath) {
        return nullptr;
    }
    openedModes.emplace_back(mode);
    if (!otherFile.empty()) {
        return __real_fopen(otherFile.c_str(), mode);
    }
    return fopencookie(this, "r",
                       {.read = readText, .write = nullptr, .seek = nullptr, .close = nullptr});
}

ssize_t FakeFile::readText(void* cookie, char* buffer, std::size_t size) {
    auto& self = *static_cast<FakeFile*>(cookie);
    if (self.remainingText.empty()) {
        errno = self.failure;
        return -1;
    }
    const std::size_t count = self.remainingText.copy(buffer, size);
    self.remainingText.erase(0, count);
    return static_cast<ssize_t>(count);
}

}  // namespace session_service
