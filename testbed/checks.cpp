#include "testbed/checks.h"

#include <iostream>

namespace testbed {

void Checks::check(bool right, const std::string& statement) {
    std::cout << (right ? "   [right] " : "   [WRONG] ") << statement << "\n";
    rightSoFar = rightSoFar && right;
}

}  // namespace testbed
