// Another program of this product as a child.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace tools {

// The program of that name beside this one, else the one in the path.
std::string ProgramBeside(const std::string& name);

struct ChildOptions {
  bool ownGroup = false;  // of processes: signals to it go to its own children as well
  std::string output;     // file for what it says on standard output and error; empty: as this one
};

// It gets SIGTERM when the thread that started it ends, however it ends. For that one thread.
class ChildProcess {
 public:
  // Throws std::runtime_error when it cannot be started.
  ChildProcess(const std::vector<std::string>& command, const ChildOptions& options);
  ~ChildProcess();  // asks it to end, and kills it when it takes longer than kLongestEnd
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  static constexpr int kLongestEnd = 40;  // seconds: a recorder writes what it has

  void Signal(int signal);
  bool Runs();
  int Status() const { return status_; }  // that it ended with; 1: by a signal
  pid_t Pid() const { return pid_; }

 private:
  pid_t pid_ = -1;
  bool ownGroup_ = false;
  int status_ = 1;
};

// Runs a program to its end, and says whether it was 0; what it says is lost.
bool RunProgram(const std::vector<std::string>& command);

}  // namespace tools
