// A hook that runs a command.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "tools/service/hook_sender.h"

extern char** environ;  // NOLINT(readability-redundant-declaration): not every C library has it

namespace tools {
namespace {

class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  ~Descriptor() { Close(); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Number() const { return number_; }
  void Close() {
    if (number_ >= 0) {
      close(std::exchange(number_, -1));
    }
  }

 private:
  int number_;
};

// What a child starts with: no descriptor but its three, the signals as usual, a group of its own,
// so that all that it starts can be ended with it.
class Start {
 public:
  explicit Start(int input) {
    posix_spawn_file_actions_init(&files_);
    posix_spawn_file_actions_adddup2(&files_, input, STDIN_FILENO);
    posix_spawn_file_actions_addopen(&files_, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addclosefrom_np(&files_, STDERR_FILENO + 1);
    posix_spawnattr_init(&attributes_);
    sigset_t signals;
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes_, &signals);
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&attributes_, &signals);
    posix_spawnattr_setpgroup(&attributes_, 0);
    posix_spawnattr_setflags(
        &attributes_, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  }
  ~Start() {
    posix_spawn_file_actions_destroy(&files_);
    posix_spawnattr_destroy(&attributes_);
  }
  Start(const Start&) = delete;
  Start& operator=(const Start&) = delete;

  // 0, or the errno of what failed.
  int Run(pid_t* child, std::vector<std::string>& command, std::vector<std::string>& variables) {
    std::vector<char*> arguments = Pointers(command);
    std::vector<char*> environment = Pointers(variables);
    return posix_spawnp(child, arguments[0], &files_, &attributes_, arguments.data(),
                        environment.data());
  }

 private:
  static std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string& text : texts) {
      pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
  }

  posix_spawn_file_actions_t files_{};
  posix_spawnattr_t attributes_{};
};

std::vector<std::string> Environment(const HookEvent& event) {
  std::vector<std::string> variables;
  for (char** each = environ; each != nullptr && *each != nullptr; ++each) {
    variables.emplace_back(*each);
  }
  for (const auto& [name, value] : HookVariables(event)) {
    variables.push_back(name + "=" + value);
  }
  return variables;
}

class CommandSender final : public HookSender {
 public:
  explicit CommandSender(const HookConfig& config) : config_(config) {
    if (config.command.empty() || config.command.front().empty()) {
      throw std::runtime_error("hook " + config.name + ": no command is given");
    }
  }

  HookAnswer Send(const HookEvent& event, int interrupt) override {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) {
      return Failed(HookResult::kAgain, std::strerror(errno));
    }
    Descriptor input(ends[0]);
    Descriptor output(ends[1]);
    // Far less than a pipe takes: nobody has to read it for this to go on.
    const std::string json = HookJson(event) + "\n";
    fcntl(output.Number(), F_SETFL, O_NONBLOCK);
    const ssize_t written = write(output.Number(), json.data(), json.size());
    output.Close();
    if (written != static_cast<ssize_t>(json.size())) {
      return Failed(HookResult::kRefused, "the event does not fit into a pipe");
    }
    std::vector<std::string> command = config_.command;
    std::vector<std::string> variables = Environment(event);
    pid_t child = -1;
    if (const int error = Start(input.Number()).Run(&child, command, variables); error != 0) {
      return Failed(HookResult::kRefused, std::strerror(error));
    }
    return WaitFor(child, interrupt);
  }

 private:
  HookAnswer Failed(HookResult result, const std::string& why) const {
    return {result, config_.command.front() + ": " + why};
  }

  HookAnswer WaitFor(pid_t child, int interrupt) const {
    const Descriptor handle(static_cast<int>(syscall(SYS_pidfd_open, child, 0)));
    std::array<pollfd, 2> wait{{{handle.Number(), POLLIN, 0}, {interrupt, POLLIN, 0}}};
    const auto end =
        std::chrono::steady_clock::now() + std::chrono::seconds(config_.timeoutSeconds);
    int ready = 0;
    do {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          end - std::chrono::steady_clock::now());
      ready = poll(wait.data(), wait.size(), static_cast<int>(std::max<long>(left.count(), 0)));
    } while (ready < 0 && errno == EINTR);
    const bool hangs = wait[0].revents == 0;
    if (hangs) {
      kill(-child, SIGKILL);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (hangs) {
      return Failed(HookResult::kRefused, ready > 0 ? "ended, as the recorder ends"
                                                    : "did not end within " +
                                                          std::to_string(config_.timeoutSeconds) +
                                                          " s and was killed");
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
      return {};
    }
    return Failed(HookResult::kRefused, WIFSIGNALED(status)
                                            ? "ended by signal " + std::to_string(WTERMSIG(status))
                                            : "status " + std::to_string(WEXITSTATUS(status)));
  }

  const HookConfig config_;
};

}  // namespace

std::unique_ptr<HookSender> MakeCommandSender(const HookConfig& config) {
  return std::make_unique<CommandSender>(config);
}

}  // namespace tools
