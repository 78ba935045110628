#include "sessionctl/replaced_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "base/file_descriptor.h"
#include "sessionctl/output.h"

namespace session_service::console {
namespace {

bool writeAll(int file, const std::string& text) {
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(file, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return false;
        }
        written += count > 0 ? static_cast<std::size_t>(count) : 0;
    }
    return true;
}

}  // namespace

void replaceFile(const std::string& path, const std::string& text, mode_t mode) {
    std::string temporary = path + ".XXXXXX";
    int error = 0;
    {
        const FileDescriptor file(mkostemp(temporary.data(), O_CLOEXEC));
        if (!file) {
            error = errno;
        } else if (!writeAll(file.get(), text) || fchmod(file.get(), mode) != 0 ||
                   rename(temporary.c_str(), path.c_str()) != 0) {
            error = errno;
            unlink(temporary.c_str());
        }
    }
    if (error != 0) {
        throw CommandError(exit_status::failure,
                           escaped(path) + " cannot be written: " + std::strerror(error) + ".");
    }
}

}  // namespace session_service::console
