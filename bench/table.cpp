#include "bench/table.h"

#include <iomanip>
#include <iostream>
#include <sstream>

namespace testbed {

std::string fixed(double figure, int places) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(places) << figure;
    return text.str();
}

void Table::head(const std::vector<std::string>& columns) {
    std::cout << "\n";
    row(columns);
    row(std::vector<std::string>(columns.size(), "---"));
}

void Table::row(const std::vector<std::string>& cells) {
    for (const std::string& cell : cells) {
        std::cout << "| " << cell << " ";
    }
    std::cout << "|" << std::endl;
}

void Table::judge(std::vector<std::string> cells, bool met) {
    if (!met) {
        cells.back() += ", **missed**";
        allMet_ = false;
    }
    row(cells);
}

}  // namespace testbed
