// What browsers call this machine.
#pragma once

#include <string>
#include <vector>

namespace tools {

// "localhost" and its own name, with `others` in front.
std::vector<std::string> NamesOfThisMachine(std::vector<std::string> others);

}  // namespace tools
