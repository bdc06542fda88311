// This program again, in another role and a process of its own.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace bench {

// Runs /proc/self/exe with the arguments; it dies with its parent. Standard input and output are
// pipes.
class ChildProcess {
 public:
  explicit ChildProcess(const std::vector<std::string>& arguments);
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
  ~ChildProcess();  // ends its input, then waits for it
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  std::string ReadLine();  // without its end; empty when the output ended
  void Terminate();
  pid_t Pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  int output_ = -1;
};

}  // namespace bench
