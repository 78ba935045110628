#include "sessionctl/log_follower.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdio>

#include "base/text_file.h"

namespace session_service::console {
namespace {

struct OpenLog {
    FilePtr file;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
};

OpenLog openLog(const std::string& path) {
    OpenLog log{.file = FilePtr(std::fopen(path.c_str(), "re"))};
    struct stat status {};
    if (log.file && fstat(fileno(log.file.get()), &status) == 0 && S_ISREG(status.st_mode)) {
        log.inode = status.st_ino;
        log.size = static_cast<std::uint64_t>(status.st_size);
    } else {
        log.file.reset();
    }
    return log;
}

// As much of it as had been read at that offset, up to a limit.
std::uint64_t digestOfBeginning(const OpenLog& log, std::uint64_t offset) {
    constexpr std::uint64_t maxBytes = 64;
    std::array<char, maxBytes> bytes{};
    std::rewind(log.file.get());
    const std::size_t wanted = static_cast<std::size_t>(std::min(offset, maxBytes));
    const std::size_t count = std::fread(bytes.data(), 1, wanted, log.file.get());
    // FNV-1a
    std::uint64_t digest = 0xcbf29ce484222325;
    for (std::size_t i = 0; i < count; ++i) {
        digest = (digest ^ static_cast<unsigned char>(bytes[i])) * 0x100000001b3;
    }
    return digest;
}

// Whether the position is one in this log.
bool isIn(const LogPosition& position, const OpenLog& log) {
    return log.file && position.inode == log.inode && position.offset <= log.size &&
           position.beginning == digestOfBeginning(log, position.offset);
}

// Returns where the last complete line ends.
std::uint64_t readFrom(const OpenLog& log, std::uint64_t offset,
                       const std::function<void(const std::string&)>& handle) {
    if (fseeko(log.file.get(), static_cast<off_t>(offset), SEEK_SET) != 0) {
        return offset;
    }
    std::string line;
    std::array<char, 4096> chunk{};
    while (const std::size_t count = std::fread(chunk.data(), 1, chunk.size(), log.file.get())) {
        for (std::size_t i = 0; i < count; ++i) {
            if (chunk[i] != '\n') {
                line += chunk[i];
                continue;
            }
            offset += line.size() + 1;
            handle(line);
            line.clear();
        }
    }
    return offset;
}

}  // namespace

std::optional<LogPosition> readLog(const std::string& path,
                                   const std::optional<LogPosition>& position,
                                   const std::function<void(const std::string&)>& handle) {
    const OpenLog log = openLog(path);
    std::uint64_t offset = 0;
    if (position && isIn(*position, log)) {
        offset = position->offset;
    } else if (const OpenLog rotated = openLog(path + ".1"); rotated.file) {
        if (!position) {
            readFrom(rotated, 0, handle);
        } else if (isIn(*position, rotated)) {
            readFrom(rotated, position->offset, handle);
        }
    }
    if (!log.file) {
        return std::nullopt;
    }
    const std::uint64_t end = readFrom(log, offset, handle);
    return LogPosition{log.inode, end, digestOfBeginning(log, end)};
}

}  // namespace session_service::console
