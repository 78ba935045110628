// Statements that a program checks and prints.
#pragma once

#include <string>

namespace testbed {

class Checks {
  public:
    // Prints the statement, marked as right or wrong.
    void check(bool right, const std::string& statement);
    // Whether all statements so far were right.
    bool allRight() const { return rightSoFar; }

  private:
    bool rightSoFar = true;
};

}  // namespace testbed
