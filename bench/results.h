// What a bench has measured, as JSON.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace bench {

// Members keep the order in which they were added.
using Json = nlohmann::ordered_json;

// A number with no more than so many decimal places.
double rounded(double number, int places);

// A target, as all results name it.
Json targetOf(const std::string& name, double measured, double maximum);

// Throws Failure when the file cannot be written.
void writeResults(const std::string& path, const Json& results);

}  // namespace bench
