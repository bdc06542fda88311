// Commands run as a user would run them.
#pragma once

#include <string>

namespace test {

struct ShellResult {
  int status;  // the exit status, -1 when it crashed
  std::string output;
  std::string errors;
};

// Runs a command line in the shell, for at most a minute.
ShellResult RunShell(const std::string& command);

// The built `orvanta` with these arguments.
ShellResult RunOrvanta(const std::string& arguments);

}  // namespace test
