#include "tools/support/become_program.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

namespace tools {

void BecomeProgram(const char* program, const std::string& purpose, std::string name,
                   char** arguments) {
  arguments[0] = name.data();
  std::error_code unknown;
  const auto own = std::filesystem::read_symlink("/proc/self/exe", unknown);
  execv((own.parent_path() / program).c_str(), arguments);
  execvp(program, arguments);
  throw std::runtime_error(
      std::string(program) + ", " + purpose +
      ", cannot be started from beside orvanta or from PATH: " + std::strerror(errno));
}

}  // namespace tools
