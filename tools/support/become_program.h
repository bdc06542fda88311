// Another program of this product in this one's place.
#pragma once

#include <string>

namespace tools {

// The program beside this one, else the one in the path, takes this process over. `arguments` are
// those of `orvanta`, from the command's name on; `name` is by which it goes in its messages.
// Throws std::runtime_error, which says what the program is for, when it cannot be started.
[[noreturn]] void BecomeProgram(const char* program, const std::string& purpose, std::string name,
                                char** arguments);

}  // namespace tools
