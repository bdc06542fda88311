#include "tools/fleet/child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

namespace tools {
namespace {

constexpr std::chrono::milliseconds kLookForEnd{20};

}  // namespace

std::string ProgramBeside(const std::string& name) {
  std::error_code unknown;
  const auto own = std::filesystem::read_symlink("/proc/self/exe", unknown);
  const auto beside = own.parent_path() / name;
  return access(beside.c_str(), X_OK) == 0 ? beside.string() : name;
}

ChildProcess::ChildProcess(const std::vector<std::string>& command, const ChildOptions& options)
    : ownGroup_(options.ownGroup) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& text : command) {
    arguments.push_back(const_cast<char*>(text.c_str()));
  }
  arguments.push_back(nullptr);
  const int output = options.output.empty() ? -1
                                            : open(options.output.c_str(),
                                                   O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
  const pid_t parent = getpid();
  pid_ = fork();
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) {
      _exit(127);
    }
    if (options.ownGroup) {
      setpgid(0, 0);
    }
    if (output >= 0) {
      dup2(output, STDOUT_FILENO);
      dup2(output, STDERR_FILENO);
    }
    signal(SIGHUP, SIG_IGN);  // until it listens to it
    execvp(arguments[0], arguments.data());
    _exit(127);
  }
  const int error = errno;
  if (output >= 0) {
    close(output);
  }
  if (pid_ < 0) {
    throw std::runtime_error(command.front() + " cannot be started: " + std::strerror(error));
  }
  if (options.ownGroup) {
    setpgid(pid_, pid_);
  }
}

ChildProcess::~ChildProcess() {
  Signal(SIGTERM);
  Signal(SIGCONT);
  const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(kLongestEnd);
  while (Runs() && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(kLookForEnd);
  }
  if (Runs()) {
    Signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
}

void ChildProcess::Signal(int signal) {
  if (pid_ > 0) {
    kill(ownGroup_ ? -pid_ : pid_, signal);
  }
}

bool ChildProcess::Runs() {
  int status = 0;
  if (pid_ > 0 && waitpid(pid_, &status, WNOHANG) != 0) {
    pid_ = -1;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 1;
  }
  return pid_ > 0;
}

bool RunProgram(const std::vector<std::string>& command) {
  ChildProcess child(command, ChildOptions{false, "/dev/null"});
  while (child.Runs()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return child.Status() == 0;
}

}  // namespace tools
