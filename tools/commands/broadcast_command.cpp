// orvanta broadcast: a TCP server that sends the lines of standard input to its peers.
#include <arpa/inet.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "cms/exports/tcp_server_exports.h"
#include "tools/commands/command.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

// A peer that falls behind by more than its queue misses lines; a longer line has no room in it.
constexpr int kPiece = 1024;
constexpr int kPieces = 4096;
constexpr std::size_t kLongestLine = std::size_t{1} << 20;
static_assert(kLongestLine <= std::size_t{kPiece} * kPieces / 2);

// Each has two threads. Those that come when there are so many wait until one leaves.
constexpr int kMostPeers = 512;

// How long a peer that takes nothing may hold up the end.
constexpr std::chrono::milliseconds kPatience{2000};
constexpr std::chrono::milliseconds kLookAtTheQueue{10};
constexpr std::chrono::milliseconds kReport{1000};

struct BroadcastArguments {
  std::vector<std::string> addresses = {"127.0.0.1"};
  bool json = false;
};

class Broadcast {
 public:
  explicit Broadcast(const BroadcastArguments& arguments) : arguments_(arguments) {
    for (const std::string& text : arguments.addresses) {
      in_addr address{};
      inet_pton(AF_INET, text.c_str(), &address);  // checked by the option
      addresses_.push_back(ntohl(address.s_addr));
    }
    config_.recvFrameSize = kPiece;
    config_.recvQueueDepth = kPieces;
    config_.maximumConnections = kMostPeers;
    server_.reset(CreateTcpServer(&config_));
    if (StartTcpServer(server_.get()) == 0) {
      throw std::runtime_error(std::string("cannot listen: ") + std::strerror(errno));
    }
  }

  int Run() {
    in_addr address{};
    address.s_addr = htonl(config_.localAddress);
    std::array<char, INET_ADDRSTRLEN> text{};
    inet_ntop(AF_INET, &address, text.data(), text.size());
    if (arguments_.json) {
      const nlohmann::ordered_json told{{"address", text.data()}, {"port", config_.localPort}};
      std::printf("%s\n", told.dump().c_str());
    } else {
      std::printf("%s port %d ready\n", text.data(), config_.localPort);
    }
    std::fflush(stdout);
    while (ReadSome()) {
    }
    if (!StopRequested()) {
      LetPeersFinish();
    }
    if (!arguments_.json) {
      std::printf("%llu lines, %llu bytes\n", lines_, bytes_);
    }
    return tooLong_ > 0 ? 1 : 0;
  }

 private:
  struct Destroy {
    void operator()(CTcpServer* server) const { DestroyTcpServer(server); }
  };

  // Waits for input and sends what it completes; false at its end and when told to stop.
  bool ReadSome() {
    std::array<pollfd, 2> wait{{{STDIN_FILENO, POLLIN, 0}, {StopDescriptor(), POLLIN, 0}}};
    const bool shows = !arguments_.json && isatty(STDERR_FILENO) != 0;
    const int ready =
        poll(wait.data(), wait.size(), shows ? static_cast<int>(kReport.count()) : -1);
    if (StopRequested()) {
      return false;
    }
    if (ready == 0) {
      std::fprintf(stderr, "\r%d peers  %llu lines  %llu bytes ", TotalClientCnt(server_.get()),
                   lines_, bytes_);
    }
    if (wait[0].revents == 0) {
      return true;
    }
    std::array<char, 65536> buffer;
    const ssize_t got = read(STDIN_FILENO, buffer.data(), buffer.size());
    if (got < 0 && errno != EINTR && errno != EAGAIN) {
      throw std::runtime_error(std::string("cannot read standard input: ") + std::strerror(errno));
    }
    if (got == 0) {
      EndLine();  // one without a line feed at its end
      return false;
    }
    for (std::string_view left(buffer.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
         !left.empty();) {
      const std::size_t end = left.find('\n');
      Append(left.substr(0, end));
      if (end == std::string_view::npos) {
        break;
      }
      line_ += '\n';
      EndLine();
      left.remove_prefix(end + 1);
    }
    return true;
  }

  // Of a line that is too long, only so much is kept as to know it.
  void Append(std::string_view text) {
    const std::size_t room = kLongestLine - std::min(kLongestLine, line_.size());
    line_ += text.substr(0, room);
  }

  void EndLine() {
    if (line_.empty()) {
      return;
    }
    if (line_.back() != '\n') {
      line_ += '\n';
    }
    if (line_.size() > kLongestLine) {
      ++tooLong_;
      std::fprintf(stderr,
                   "orvanta broadcast: line %llu is longer than %zu bytes and was not sent\n",
                   lines_ + tooLong_, kLongestLine - 1);
    } else {
      // Whoever comes or goes takes the permission from its address.
      for (const std::uint32_t each : addresses_) {
        EnableSendData(server_.get(), each, 1);
      }
      SendTcpData(server_.get(), line_.data(), static_cast<int>(line_.size()));
      ++lines_;
      bytes_ += line_.size();
    }
    line_.clear();
  }

  // Returns when every peer has everything, or those left take nothing any more.
  void LetPeersFinish() {
    std::size_t last = 0;
    std::chrono::milliseconds waited{0};
    for (std::size_t queued = 0; (queued = server_->QueuedBytes()) > 0 && waited < kPatience;) {
      waited = queued == last ? waited + kLookAtTheQueue : std::chrono::milliseconds(0);
      last = queued;
      if (WaitForStop(kLookAtTheQueue)) {
        return;
      }
    }
  }

  const BroadcastArguments& arguments_;
  std::vector<std::uint32_t> addresses_;
  cms::tTcpServerConfig config_;
  std::unique_ptr<CTcpServer, Destroy> server_;
  std::string line_;
  unsigned long long lines_ = 0;  // sent
  unsigned long long bytes_ = 0;
  unsigned long long tooLong_ = 0;
};

}  // namespace

void AddBroadcastCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<BroadcastArguments>();
  const Command command =
      app.Add("broadcast", "A TCP server that sends every line of standard input to its peers");
  command
      .AddOption("--enable", arguments->addresses,
                 "an IPv4 address whose peers get the lines; may be given again")
      .IPv4()
      .TypeName("ADDRESS")
      .ShowDefault()
      .Repeatable();
  command.AddFlag("--json", arguments->json, "print address and port as one JSON object");
  command.Run([arguments, &result] { result.status = Broadcast(*arguments).Run(); });
}

}  // namespace tools
