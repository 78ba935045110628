#include "bench/table.h"

#include <iomanip>
#include <iostream>
#include <sstream>

namespace bench {

std::string fixed(double number, int places) {
    std::ostringstream text;
    text << std::fixed << std::setprecision(places) << number;
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
        metSoFar = false;
    }
    row(cells);
}

}  // namespace bench
