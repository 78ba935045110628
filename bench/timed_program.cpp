#include "bench/timed_program.h"

#include <cstdlib>
#include <exception>
#include <iostream>

namespace bench {

int runFor(int argc, char** argv, const char* name,
           const std::function<bool(std::chrono::seconds)>& work) {
    const long seconds = argc == 2 ? std::strtol(argv[1], nullptr, 10) : 0;
    if (seconds <= 0) {
        std::cerr << "usage: " << name << " SECONDS\n";
        return 2;
    }
    try {
        return work(std::chrono::seconds(seconds)) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::cerr << "\nThe " << name << " cannot go on: " << failure.what() << "\n";
        return EXIT_FAILURE;
    }
}

}  // namespace bench
