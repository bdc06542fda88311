// Files that are there whole or not at all.
#pragma once

#include <string>

namespace cms::fleet {

// Empty where there is none.
std::string ReadWholeFile(const std::string& path);
// In place of what is there, also after a power cut; readable by this user alone. Waits for the
// disk. False: it could not be written, and the old one stays.
bool WriteWholeFile(const std::string& path, const std::string& text);

}  // namespace cms::fleet
