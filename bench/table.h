// The tables that a benchmark prints, in Markdown.
#pragma once

#include <string>
#include <vector>

namespace bench {

// A number with so many decimal places.
std::string fixed(double number, int places);

class Table {
  public:
    // Begins a part of the table, with columns of its own.
    void head(const std::vector<std::string>& columns);
    void row(const std::vector<std::string>& cells);
    // A row whose last cell is a target; a missed one is marked.
    void judge(std::vector<std::string> cells, bool met);
    bool allMet() const { return metSoFar; }

  private:
    bool metSoFar = true;
};

}  // namespace bench
