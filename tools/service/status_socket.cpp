#include "tools/service/status_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <stdexcept>
#include <thread>
#include <utility>
#include <vector>

#include "cms/runtime/wake_up.h"
#include "tools/service/metrics.h"
#include "tools/service/status_json.h"

namespace tools {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::size_t kLongestQuestion = 64;
constexpr std::chrono::milliseconds kPlaceLook{10};

class OpenDescriptor {
 public:
  explicit OpenDescriptor(int number = -1) : number_(number) {}
  OpenDescriptor(OpenDescriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  OpenDescriptor& operator=(OpenDescriptor&&) = delete;
  ~OpenDescriptor() {
    if (number_ >= 0) {
      close(number_);
    }
  }
  explicit operator bool() const { return number_ >= 0; }
  int Number() const { return number_; }

 private:
  int number_;
};

[[noreturn]] void Fail(const std::string& path, const std::string& why) {
  throw std::runtime_error(path + ": " + why);
}

// A socket's path is short; that of a folder need not be.
class SocketAddress {
 public:
  explicit SocketAddress(const std::string& folder)
      : folder_(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
    if (!folder_) {
      Fail(folder, std::strerror(errno));
    }
    address_.sun_family = AF_UNIX;
    const std::string path =
        "/proc/self/fd/" + std::to_string(folder_.Number()) + "/" + kStatusSocketName;
    path.copy(address_.sun_path, sizeof address_.sun_path - 1);
  }
  int Bind(int socket) const {
    return bind(socket, reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
  }
  int Connect(int socket) const {
    return connect(socket, reinterpret_cast<const sockaddr*>(&address_), sizeof address_);
  }
  void Remove() const { unlinkat(folder_.Number(), kStatusSocketName, 0); }
  bool AllowGroup() const {
    return fchmodat(folder_.Number(), kStatusSocketName, S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP,
                    0) == 0;
  }

 private:
  const OpenDescriptor folder_;
  sockaddr_un address_{};
};

OpenDescriptor NewSocket() {
  return OpenDescriptor(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

int MillisecondsUntil(SteadyClock::time_point end) {
  const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - SteadyClock::now());
  return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

// One client: first its question, then the answer.
struct Client {
  OpenDescriptor socket;
  SteadyClock::time_point end;
  std::string question;
  std::string answer;
  std::size_t sent = 0;
  bool answered = false;
};

}  // namespace

class StatusSocket::Server {
 public:
  Server(const std::string& folder, Source source)
      : source_(std::move(source)), address_(folder), socket_(NewSocket()) {
    const std::string path = folder + "/" + kStatusSocketName;
    if (!socket_) {
      Fail(path, std::strerror(errno));
    }
    int bound = address_.Bind(socket_.Number());
    if (bound != 0 && errno == EADDRINUSE) {
      const OpenDescriptor probe = NewSocket();
      if (address_.Connect(probe.Number()) == 0 || errno == EAGAIN) {
        Fail(path, "another recorder runs on this folder");
      }
      address_.Remove();  // a killed one's
      bound = address_.Bind(socket_.Number());
    }
    if (bound != 0 || !address_.AllowGroup() || listen(socket_.Number(), kMostClients) != 0) {
      Fail(path, std::strerror(errno));
    }
    thread_ = std::thread([this] { Work(); });
  }

  ~Server() {
    wake_.Signal();
    thread_.join();
    address_.Remove();
  }

 private:
  void Work() {
    pthread_setname_np(pthread_self(), "orvanta-status");
    std::vector<pollfd> wait;
    while (true) {
      wait.assign({{wake_.Descriptor(), POLLIN, 0},
                   {clients_.size() < kMostClients ? socket_.Number() : -1, POLLIN, 0}});
      int timeout = -1;
      for (const Client& client : clients_) {
        wait.push_back(
            {client.socket.Number(), static_cast<short>(client.answered ? POLLOUT : POLLIN), 0});
        const int left = MillisecondsUntil(client.end);
        timeout = timeout < 0 ? left : std::min(timeout, left);
      }
      poll(wait.data(), wait.size(), timeout);
      if (wait[0].revents != 0) {
        return;
      }
      std::size_t index = 2;
      for (auto client = clients_.begin(); client != clients_.end(); ++index) {
        const bool done =
            (wait[index].revents != 0 && !Go(*client)) || SteadyClock::now() >= client->end;
        client = done ? clients_.erase(client) : std::next(client);
      }
      if (wait[1].revents != 0) {
        Accept();
      }
    }
  }

  void Accept() {
    OpenDescriptor socket(
        accept4(socket_.Number(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (socket) {
      clients_.push_back({std::move(socket), NewEnd(), {}, {}, 0, false});
    } else if (errno == EMFILE || errno == ENFILE || errno == ENOMEM) {
      // It would be readable again at once.
      std::this_thread::sleep_for(std::chrono::milliseconds(kClientMs / 10));
    }
  }

  static SteadyClock::time_point NewEnd() {
    return SteadyClock::now() + std::chrono::milliseconds(kClientMs);
  }

  // False when there is nothing left to be done for it.
  bool Go(Client& client) { return client.answered ? Send(client) : Receive(client); }

  bool Receive(Client& client) {
    char bytes[kLongestQuestion];
    const ssize_t length = recv(client.socket.Number(), bytes, sizeof bytes, 0);
    if (length < 0) {
      return errno == EAGAIN || errno == EINTR;
    }
    client.question.append(bytes, static_cast<std::size_t>(length));
    const std::size_t end = client.question.find('\n');
    if (end == std::string::npos && length > 0 && client.question.size() < kLongestQuestion) {
      return true;
    }
    client.answer = AnswerTo(client.question.substr(0, end));
    client.answered = true;
    client.end = NewEnd();
    return Send(client);
  }

  std::string AnswerTo(const std::string& question) const {
    try {
      if (question == "status") {
        return StatusJson(source_()).dump(2, ' ', false,
                                          nlohmann::ordered_json::error_handler_t::replace) +
               "\n";
      }
      if (question == "metrics") {
        return MetricsText(source_());
      }
    } catch (const std::exception& error) {
      return std::string("error: ") + error.what() + "\n";
    }
    return "error: the question is \"status\" or \"metrics\", in one line\n";
  }

  static bool Send(Client& client) {
    const ssize_t length = send(client.socket.Number(), client.answer.data() + client.sent,
                                client.answer.size() - client.sent, MSG_NOSIGNAL);
    if (length < 0) {
      return errno == EAGAIN || errno == EINTR;
    }
    client.sent += static_cast<std::size_t>(length);
    return client.sent < client.answer.size();
  }

  const Source source_;
  const SocketAddress address_;
  const OpenDescriptor socket_;
  cms::WakeUp wake_;
  std::list<Client> clients_;  // the thread's
  std::thread thread_;
};

StatusSocket::StatusSocket(const std::string& folder, Source source)
    : server_(std::make_unique<Server>(folder, std::move(source))) {}
StatusSocket::~StatusSocket() = default;

std::string AskRecorder(const std::string& folder, const std::string& question, int limitMs) {
  const std::string path = folder + "/" + kStatusSocketName;
  const SocketAddress address(folder);
  const OpenDescriptor socket = NewSocket();
  const auto end = SteadyClock::now() + std::chrono::milliseconds(limitMs);
  int connected = address.Connect(socket.Number());
  while (connected != 0 && errno == EAGAIN && SteadyClock::now() < end) {  // many wait to be taken
    std::this_thread::sleep_for(kPlaceLook);
    connected = address.Connect(socket.Number());
  }
  if (connected != 0) {
    Fail(path, errno == ENOENT || errno == ECONNREFUSED
                   ? "no recorder runs on this folder"
                   : std::string("the recorder cannot be asked: ") + std::strerror(errno));
  }
  const std::string line = question + "\n";
  send(socket.Number(), line.data(), line.size(), MSG_NOSIGNAL);
  std::string answer;
  std::vector<char> bytes(64 * 1024);
  for (pollfd wait{socket.Number(), POLLIN, 0};;) {
    if (poll(&wait, 1, MillisecondsUntil(end)) == 0) {
      Fail(path, "the recorder does not answer");
    }
    const ssize_t length = recv(socket.Number(), bytes.data(), bytes.size(), 0);
    if (length > 0) {
      answer.append(bytes.data(), static_cast<std::size_t>(length));
    } else if (length == 0 || (errno != EAGAIN && errno != EINTR)) {
      break;
    }
  }
  if (answer.empty()) {
    Fail(path, "the recorder ended without an answer");
  }
  if (answer.starts_with("error: ")) {
    Fail(path, answer.substr(7, answer.find('\n') - 7));
  }
  return answer;
}

}  // namespace tools
