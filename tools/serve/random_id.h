// Names that nobody guesses.
#pragma once

#include <string>

namespace tools {

std::string RandomId();  // 32 hexadecimal digits

}  // namespace tools
