#include "bench/process_statistics.h"

#include <filesystem>
#include <fstream>
#include <iterator>

#include "testbed/process.h"

namespace bench {

namespace {

[[noreturn]] void throwEnded(pid_t pid) {
    throw testbed::Failure("Process " + std::to_string(pid) + " has ended.");
}

// The number after "NAME:" in a file under /proc.
long namedValue(pid_t pid, const std::string& path, const std::string& name) {
    std::ifstream file(testbed::procFile(pid, path));
    for (std::string word; file >> word;) {
        if (word == name + ":") {
            long value = 0;
            file >> value;
            return value;
        }
    }
    throwEnded(pid);
}

}  // namespace

double processorSeconds(pid_t pid) {
    double seconds = 0;
    for (const ThreadUse& use : threadUse(pid)) {
        seconds += use.seconds;
    }
    return seconds;
}

long statusValue(pid_t pid, const std::string& name) {
    return namedValue(pid, "status", name);
}

long threadStatusValue(pid_t pid, pid_t thread, const std::string& name) {
    return namedValue(pid, "task/" + std::to_string(thread) + "/status", name);
}

long memoryKib(pid_t pid, const std::string& name) {
    return namedValue(pid, "smaps_rollup", name);
}

long openDescriptors(pid_t pid) {
    std::error_code failure;
    const std::filesystem::directory_iterator descriptors(testbed::procFile(pid, "fd"), failure);
    if (failure) {
        throwEnded(pid);
    }
    return std::distance(begin(descriptors), end(descriptors));
}

std::vector<ThreadUse> threadUse(pid_t pid) {
    std::error_code failure;
    const std::filesystem::directory_iterator threads(testbed::procFile(pid, "task"), failure);
    if (failure) {
        throwEnded(pid);
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

double storeValue(testbed::StoreClient& store, const std::string& section,
                  const std::string& name) {
    const std::string text = store.run({"INFO", section}).text;
    const std::size_t at = text.find("\n" + name + ":");
    if (at == std::string::npos) {
        throw testbed::Failure("The store does not tell " + name + ".");
    }
    return std::stod(text.substr(at + name.size() + 2));
}

}  // namespace bench
