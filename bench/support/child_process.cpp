#include "bench/support/child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

namespace bench {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments)
    : ChildProcess("/proc/self/exe", arguments) {}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
  int toChild[2];
  int fromChild[2];
  if (pipe2(toChild, O_CLOEXEC) != 0 || pipe2(fromChild, O_CLOEXEC) != 0) {
    return;
  }
  std::vector<char*> list;
  list.push_back(const_cast<char*>(program.c_str()));
  for (const std::string& each : arguments) {
    list.push_back(const_cast<char*>(each.c_str()));
  }
  list.push_back(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    dup2(toChild[0], STDIN_FILENO);
    dup2(fromChild[1], STDOUT_FILENO);
    execv(program.c_str(), list.data());
    _exit(127);
  }
  close(toChild[0]);
  close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
}

ChildProcess::~ChildProcess() {
  close(input_);
  close(output_);
  if (pid_ > 0) {
    waitpid(pid_, nullptr, 0);
  }
}

std::string ChildProcess::ReadLine() {
  std::string line;
  char c = 0;
  while (read(output_, &c, 1) == 1 && c != '\n') {
    line += c;
  }
  return line;
}

void ChildProcess::Terminate() {
  if (pid_ > 0) {
    kill(pid_, SIGTERM);
  }
}

}  // namespace bench
