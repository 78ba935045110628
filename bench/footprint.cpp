// Measures what the daemon needs of a board, and the time of its work beside its baseline. Prints
// tables. Exit status 0: all targets are met. With --quick it only shows that it works, and its
// results say nothing: exit status 0 when all could be measured and the daemon is small enough.
#include <sched.h>

#include <cstdlib>
#include <iostream>
#include <string_view>

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

bool measure(bool quick) {
    const Scale& scale = quick ? quickScale : fullScale;
    bench::Table table;
    table.head({"", "measured", "target"});
    bench::measureSize(table);
    const bool smallEnough = table.allMet();
    bench::measureStart(table);
    bench::measureMemory(table, scale.logins);
    bench::measureIdleness(table, scale.idle);
    bench::measureCalls(table);
    bench::measureRequests(table, scale.requests);
    bench::measureExpiry(table, scale.sessions, scale.passes);
    bench::measureAccountLookUp(table, scale.keys, scale.lookUps);
    return quick ? smallEnough : table.allMet();
}

}  // namespace

int main(int argc, char** argv) {
    const bool quick = argc == 2 && std::string_view(argv[1]) == "--quick";
    if (argc > 1 && !quick) {
        std::cerr << "usage: footprint [--quick]\n";
        return 2;
    }
    if (!quick) {
        shareOneProcessor();
    }
    try {
        return measure(quick) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::cerr << failure.what() << "\n";
        return EXIT_FAILURE;
    }
}
