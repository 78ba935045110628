#include "controller/wait.h"

#include <thread>

namespace bench {

namespace {

constexpr std::chrono::seconds patienceLength{BENCH_SANITIZED ? 180 : 60};
constexpr std::chrono::milliseconds pause{2};

}  // namespace

Deadline patience() {
    return std::chrono::steady_clock::now() + patienceLength;
}

void waitUntil(const std::string& what, const std::function<bool()>& condition) {
    const Deadline end = patience();
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) {
            throw Failure("Waited in vain until " + what + ".");
        }
        std::this_thread::sleep_for(pause);
    }
}

}  // namespace bench
