#include "bench/support/processor_time.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

namespace bench {

double ProcessorTime(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(file)), {});
  std::istringstream fields(text.substr(text.rfind(')') + 1));
  std::string skipped;
  for (int i = 0; i < 11; ++i) {
    fields >> skipped;
  }
  double user = 0;
  double system = 0;
  fields >> user >> system;
  double sum = (user + system) * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK));
  const std::string task = std::to_string(pid);
  std::ifstream children("/proc/" + task + "/task/" + task + "/children");
  for (int child = 0; children >> child;) {
    sum += ProcessorTime(child);
  }
  return sum;
}

}  // namespace bench
