// Numbers of bytes on the command line and in what it prints.
#pragma once

#include <cstdint>
#include <string>

namespace tools {

// "500G", "1.5 TB", "750M" or a number of bytes; powers of 1000, as disks are sold. Throws
// UsageError that names the option and says what it takes.
std::uint64_t ReadBytes(const std::string& option, const std::string& text);

std::string TextOfBytes(std::uint64_t bytes);  // "1.50 TB", "999 B"

}  // namespace tools
