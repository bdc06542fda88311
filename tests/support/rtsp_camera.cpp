#include "tests/support/rtsp_camera.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <random>
#include <stdexcept>
#include <utility>

#include "tests/support/paths.h"

extern char** environ;

namespace test {
namespace {

constexpr int kStartLimit = 60'000;  // milliseconds

// The environment of the child: what GStreamer leaves behind at its end, and locks that a sanitizer
// cannot see inside it, are no faults of ours.
std::vector<std::string> ChildEnvironment() {
  std::vector<std::string> variables{"ASAN_OPTIONS=detect_leaks=0", "LSAN_OPTIONS=detect_leaks=0",
                                     "TSAN_OPTIONS=report_bugs=0"};
  for (char** each = environ; *each != nullptr; ++each) {
    const std::string_view variable(*each);
    if (!variable.substr(0, variable.find('=')).ends_with("SAN_OPTIONS")) {
      variables.emplace_back(variable);
    }
  }
  return variables;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  for (std::string& text : texts) {
    pointers.push_back(text.data());
  }
  pointers.push_back(nullptr);
  return pointers;
}

// One line, or what came before the end or the limit.
std::string ReadLine(int descriptor) {
  std::string line;
  pollfd ready{descriptor, POLLIN, 0};
  char byte = 0;
  while (poll(&ready, 1, kStartLimit) == 1 && read(descriptor, &byte, 1) == 1) {
    line.push_back(byte);
    if (byte == '\n') {
      break;
    }
  }
  return line;
}

std::uint16_t PortOf(const std::string& url) {
  return static_cast<std::uint16_t>(std::atoi(url.c_str() + url.rfind(':') + 1));
}

std::string Option(const std::vector<std::string>& options, const std::string& name,
                   const std::string& otherwise) {
  const auto found = std::find(options.begin(), options.end(), name);
  return found == options.end() || found + 1 == options.end() ? otherwise : *(found + 1);
}

}  // namespace

RtspCamera::RtspCamera(std::vector<std::string> options) : options_(std::move(options)) {
  Start();
}

RtspCamera::~RtspCamera() {
  Kill();
}

std::uint16_t RtspCamera::Port(std::size_t camera) const {
  return PortOf(Url(camera));
}

void RtspCamera::Start() {
  const bool again = !urls_.empty();
  const std::size_t count = std::strtoul(Option(options_, "--count", "1").c_str(), nullptr, 10);
  if (again && !httpUrls_.front().empty()) {
    *(std::find(options_.begin(), options_.end(), "--http") + 1) =
        std::to_string(PortOf(httpUrls_.front()));
  }
  // Several cameras take ports that follow each other; where they are free has to be tried.
  for (int attempt = 1;; ++attempt) {
    const unsigned port = again        ? Port()
                          : count == 1 ? 0
                                       : 10'000 + std::random_device()() % 20'000;
    const std::string failure = TryStart(port, count);
    if (failure.empty()) {
      return;
    }
    if (again || count == 1 || attempt == 20) {
      throw std::runtime_error("the camera did not come up: " + failure);
    }
  }
}

// The camera's last words, "" when all is well.
std::string RtspCamera::TryStart(unsigned port, std::size_t count) {
  // The camera goes with the test, even with one that crashes.
  std::vector<std::string> arguments{"setpriv", "--pdeathsig", "KILL", test::OrvantaBinary(),
                                     "camera"};
  arguments.insert(arguments.end(), options_.begin(), options_.end());
  arguments.insert(arguments.end(), {"--port", std::to_string(port)});
  std::vector<std::string> environment = ChildEnvironment();
  int out[2];
  if (pipe2(out, O_CLOEXEC) != 0) {
    return strerror(errno);
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  const int error = posix_spawnp(&pid_, arguments.front().c_str(), &actions, nullptr,
                                 Pointers(arguments).data(), Pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  if (error != 0) {
    pid_ = -1;
    close(out[0]);
    return strerror(error);
  }
  std::vector<std::string> urls;
  std::vector<std::string> httpUrls;
  std::string said;
  while (urls.size() < count) {
    const std::string line = ReadLine(out[0]);
    if (line.empty()) {
      close(out[0]);
      Kill();
      return "see what it said above; " + said;
    }
    said += line;
    if (constexpr std::string_view kCertificate = "certificate SHA-256 ";
        line.starts_with(kCertificate)) {
      fingerprint_ = line.substr(kCertificate.size(), line.size() - kCertificate.size() - 1);
    }
    if (line.ends_with(" ready\n")) {
      const std::size_t first = line.find(' ');
      const std::size_t last = line.rfind(' ');
      urls.push_back(line.substr(0, first));
      httpUrls.push_back(first == last ? "" : line.substr(first + 1, last - first - 1));
    }
  }
  close(out[0]);
  urls_ = std::move(urls);
  httpUrls_ = std::move(httpUrls);
  return {};
}

int RtspCamera::Stop() {
  return Wait(SIGTERM);
}

void RtspCamera::Kill() {
  Wait(SIGKILL);
}

int RtspCamera::Wait(int signal) {
  if (pid_ < 0) {
    return -1;
  }
  kill(pid_, signal);
  int status = 0;
  waitpid(pid_, &status, 0);
  pid_ = -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string WithCredentials(const std::string& url, std::string_view user,
                            std::string_view password) {
  const std::size_t host = url.find("://") + 3;
  return url.substr(0, host) + std::string(user) + ":" + std::string(password) + "@" +
         url.substr(host);
}

}  // namespace test
