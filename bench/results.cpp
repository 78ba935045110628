#include "bench/results.h"

#include <cmath>
#include <fstream>

#include "testbed/wait.h"

namespace bench {

double rounded(double number, int places) {
    const double scale = std::pow(10, places);
    return std::round(number * scale) / scale;
}

Json targetOf(const std::string& name, double measured, double maximum) {
    return {{"name", name},
            {"measured", rounded(measured, 3)},
            {"maximum", rounded(maximum, 3)},
            {"met", measured <= maximum}};
}

void writeResults(const std::string& path, const Json& results) {
    std::ofstream file(path);
    file << results.dump(2) << "\n";
    if (!file.flush()) {
        throw testbed::Failure("The results cannot be written to " + path + ".");
    }
}

}  // namespace bench
