// The table that ends `orvanta live` for people; programs read --json.
#pragma once

#include <nlohmann/json.hpp>

namespace tools {

// Prints a line for each stream (the objects of the JSON answer) on standard output.
void PrintSummary(const nlohmann::ordered_json& streams);

}  // namespace tools
