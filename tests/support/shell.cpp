#include "tests/support/shell.h"

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "tests/support/paths.h"

namespace test {

ShellResult RunShell(const std::string& command) {
  ShellResult result{-1, "", ""};
  char errors[] = "/tmp/orvanta-errors-XXXXXX";
  close(mkstemp(errors));
  FILE* const pipe = popen(
      ("exec 2>" + std::string(errors) + "; LSAN_OPTIONS=detect_leaks=0 timeout 60 " + command)
          .c_str(),
      "r");
  char buffer[4096];
  std::size_t count = 0;
  while ((count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
    result.output.append(buffer, count);
  }
  const int status = pclose(pipe);
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::stringstream text;
  text << std::ifstream(errors).rdbuf();
  result.errors = text.str();
  unlink(errors);
  return result;
}

ShellResult RunOrvanta(const std::string& arguments) {
  return RunShell(test::OrvantaBinary() + " " + arguments);
}

}  // namespace test
