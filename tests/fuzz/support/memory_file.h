// Files that exist in memory only.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <string_view>

#include "base/file_descriptor.h"
#include "support/require.h"

namespace session_service {

// Has a path, through which this process can open it while it lives.
class MemoryFile {
  public:
    MemoryFile()
        : file(memfd_create("input", MFD_CLOEXEC)),
          name("/proc/self/fd/" + std::to_string(file.get())) {
        require(static_cast<bool>(file), "a file in memory can be made");
    }

    [[nodiscard]] const char* path() const { return name.c_str(); }

    void write(std::string_view text) {
        require(ftruncate(file.get(), 0) == 0 && pwrite(file.get(), text.data(), text.size(), 0) ==
                                                     static_cast<ssize_t>(text.size()),
                "the file in memory takes the text");
    }

    [[nodiscard]] std::string read() const {
        std::string text(static_cast<std::size_t>(lseek(file.get(), 0, SEEK_END)), '\0');
        require(pread(file.get(), text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()),
                "the file in memory can be read");
        return text;
    }

  private:
    FileDescriptor file;
    std::string name;
};

}  // namespace session_service
