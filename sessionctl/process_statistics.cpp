#include "sessionctl/process_statistics.h"

#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

namespace session_service::console {
namespace {

namespace fs = std::filesystem;

constexpr const char* daemonName = "session-service";

std::string readWhole(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool isSameFile(const std::string& one, const std::string& other) {
    struct stat first {};
    struct stat second {};
    return stat(one.c_str(), &first) == 0 && stat(other.c_str(), &second) == 0 &&
           first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

// When the kernel started; the same at each call.
std::time_t bootTime() {
    std::ifstream file("/proc/stat");
    std::time_t time = 0;
    for (std::string name; file >> name;) {
        if (name == "btime") {
            file >> time;
            break;
        }
    }
    return time;
}

}  // namespace

std::optional<pid_t> findDaemon(const std::string& root) {
    std::optional<pid_t> found;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename();
        pid_t pid = 0;
        const auto [end, fault] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (fault == std::errc() && end == name.data() + name.size() && (!found || pid < *found) &&
            readWhole(entry.path() / "comm") == std::string(daemonName) + '\n' &&
            isSameFile(entry.path() / "root", root)) {
            found = pid;
        }
    }
    return found;
}

std::optional<ProcessStatistics> readProcessStatistics(pid_t pid) {
    const std::string text = readWhole("/proc/" + std::to_string(pid) + "/stat");
    // The fields behind the name, which may hold blanks and brackets, from the third one on.
    const std::size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos) {
        return std::nullopt;
    }
    std::istringstream fields(text.substr(nameEnd + 1));
    std::string skipped;
    for (int field = 3; field < 14; ++field) {
        fields >> skipped;
    }
    double userTicks = 0;
    double systemTicks = 0;
    fields >> userTicks >> systemTicks;
    for (int field = 16; field < 22; ++field) {
        fields >> skipped;
    }
    double startTicks = 0;
    long long addressSpace = 0;
    long long residentPages = 0;
    if (!(fields >> startTicks >> addressSpace >> residentPages)) {
        return std::nullopt;
    }
    const auto ticksPerSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
    return ProcessStatistics{
        .pid = pid,
        .startTime = bootTime() + static_cast<std::time_t>(startTicks / ticksPerSecond),
        .processorSeconds = (userTicks + systemTicks) / ticksPerSecond,
        .residentBytes = residentPages * sysconf(_SC_PAGESIZE)};
}

}  // namespace session_service::console
