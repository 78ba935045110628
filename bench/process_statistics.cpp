#include "bench/process_statistics.h"

#include <unistd.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include "testbed/process.h"

namespace testbed {

namespace {

[[noreturn]] void hasEnded(pid_t pid) {
    throw Failure("Process " + std::to_string(pid) + " has ended.");
}

// The number behind "NAME:" in a file under /proc.
long namedFigure(pid_t pid, const std::string& path, const std::string& name) {
    std::ifstream file(procFile(pid, path));
    for (std::string word; file >> word;) {
        if (word == name + ":") {
            long figure = 0;
            file >> figure;
            return figure;
        }
    }
    hasEnded(pid);
}

}  // namespace

double processorSeconds(pid_t pid) {
    std::ifstream file(procFile(pid, "stat"));
    std::string text;
    if (!std::getline(file, text)) {
        hasEnded(pid);
    }
    // The name may hold blanks; eleven fields stand between it and the times.
    std::istringstream fields(text.substr(text.rfind(')') + 1));
    std::string skipped;
    for (int i = 0; i < 11; ++i) {
        fields >> skipped;
    }
    std::array<long, 4> ticks{};
    for (long& each : ticks) {
        fields >> each;
    }
    return static_cast<double>(ticks[0] + ticks[1] + ticks[2] + ticks[3]) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

long statusFigure(pid_t pid, const std::string& name) {
    return namedFigure(pid, "status", name);
}

long threadFigure(pid_t pid, pid_t thread, const std::string& name) {
    return namedFigure(pid, "task/" + std::to_string(thread) + "/status", name);
}

long memoryFigure(pid_t pid, const std::string& name) {
    return namedFigure(pid, "smaps_rollup", name);
}

long openDescriptors(pid_t pid) {
    std::error_code failure;
    const std::filesystem::directory_iterator descriptors(procFile(pid, "fd"), failure);
    if (failure) {
        hasEnded(pid);
    }
    return std::distance(begin(descriptors), end(descriptors));
}

std::vector<ThreadUse> threadUse(pid_t pid) {
    std::error_code failure;
    const std::filesystem::directory_iterator threads(procFile(pid, "task"), failure);
    if (failure) {
        hasEnded(pid);
    }
    std::vector<ThreadUse> uses;
    for (const auto& thread : threads) {
        ThreadUse use;
        use.thread = std::stoi(thread.path().filename());
        std::ifstream file(thread.path() / "schedstat");
        long running = 0;
        long waiting = 0;
        file >> running >> waiting >> use.switches;
        use.seconds = static_cast<double>(running) / 1e9;
        uses.push_back(use);
    }
    return uses;
}

double storeFigure(StoreClient& store, const std::string& section, const std::string& name) {
    const std::string text = store.run({"INFO", section}).text;
    const std::size_t at = text.find("\n" + name + ":");
    if (at == std::string::npos) {
        throw Failure("The store does not tell " + name + ".");
    }
    return std::stod(text.substr(at + name.size() + 2));
}

}  // namespace testbed
