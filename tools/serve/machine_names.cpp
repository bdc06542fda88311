#include "tools/serve/machine_names.h"

#include <unistd.h>

namespace tools {

std::vector<std::string> NamesOfThisMachine(std::vector<std::string> others) {
  others.emplace_back("localhost");
  char own[256] = "";
  if (gethostname(own, sizeof own - 1) == 0 && own[0] != '\0') {
    others.emplace_back(own);
    others.push_back(std::string(own) + ".local");
  }
  return others;
}

}  // namespace tools
