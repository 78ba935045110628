// Measures what the daemon needs of a board, and the time of its work beside its baseline. Prints
// tables, and writes what it has measured into a file when one is named. Exit status 0: all targets
// are met. With --quick it only shows that it works, and its results say nothing: exit status 0
// when all could be measured and the daemon is small enough.
#include <sched.h>

#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

#include "bench/latency.h"
#include "bench/resources.h"

namespace {

struct Scale {
    int logins;
    std::chrono::seconds idle;
    bench::Repetition requests;
    std::vector<int> sessions;
    bench::Repetition passes;
    std::vector<int> keys;
    bench::Repetition lookUps;
};

const Scale fullScale{
    1000,   std::chrono::seconds(60),         {100, 15}, {1, 10, 100, 1000, 10'000},
    {1, 9}, {10, 100, 1000, 10'000, 100'000}, {10, 9}};
const Scale quickScale{5, std::chrono::seconds(2), {1, 2}, {1, 10}, {1, 2}, {100, 1000}, {1, 2}};

// Lets this process and all that it starts share one processor: between two, the times of waking
// an idle one would hide the rest.
void shareOneProcessor() {
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<std::size_t>(sched_getcpu()), &one);
    sched_setaffinity(0, sizeof(one), &one);
}

bool measure(bool quick, const std::string& path) {
    const Scale& scale = quick ? quickScale : fullScale;
    bench::Table table;
    bench::Json results{{"bench", "footprint"}};
    table.head({"", "measured", "target"});
    bench::measureSize(table, results);
    const bool smallEnough = table.allMet();
    bench::measureStart(table, results);
    bench::measureMemory(table, results, scale.logins);
    bench::measureIdleness(table, results, scale.idle);
    bench::measureCalls(table, results);
    bench::measureRequests(table, results, scale.requests);
    bench::measureExpiry(table, results, scale.sessions, scale.passes);
    bench::measureAccountLookUp(table, results, scale.keys, scale.lookUps);
    if (!path.empty()) {
        bench::writeResults(path, results);
    }
    return quick ? smallEnough : table.allMet();
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    const bool quick = !arguments.empty() && arguments.front() == "--quick";
    if (quick) {
        arguments.erase(arguments.begin());
    }
    if (arguments.size() > 1) {
        std::cerr << "usage: footprint [--quick] [FILE]\n";
        return 2;
    }
    if (!quick) {
        shareOneProcessor();
    }
    try {
        return measure(quick, arguments.empty() ? "" : arguments.front()) ? EXIT_SUCCESS
                                                                          : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << "\n";
        return EXIT_FAILURE;
    }
}
