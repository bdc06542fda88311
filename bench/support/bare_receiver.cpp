#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdio>
#include <deque>
#include <string>
#include <thread>

#include "bench/support/receivers.h"

namespace bench {
namespace {

constexpr std::size_t kBuffer = 64 * 1024;
constexpr off_t kFileSize = 4 << 20;
constexpr int kReceiveBuffer = 4 << 20;  // as ours asks for

// The least that a receiver can do: one thread, epoll, and a receive call for what is ready, into
// one buffer; "write" adds writing the bytes to a file in memory. Over UDP it looks at sequence
// numbers and markers, over TCP at nothing.
class BareReceiver final : public Receiver {
 public:
  explicit BareReceiver(const ReceiveJob& job)
      : job_(job), write_(job.receiver == "write"), epoll_(epoll_create1(EPOLL_CLOEXEC)) {}

  ~BareReceiver() override {
    stop_.store(true);
    if (thread_.joinable()) {
      thread_.join();
    }
    for (const Stream& stream : streams_) {
      close(stream.control);
      close(stream.media);
      close(stream.reports);
      close(stream.file);
    }
    close(epoll_);
  }

  bool Open() override {
    for (int i = 0; i < job_.streams; ++i) {
      Stream& stream = streams_.emplace_back();
      if (!Negotiate(stream)) {
        std::fprintf(stderr, "the bare loop's stream %d could not be opened\n", i);
        return false;
      }
      stream.file = write_ ? memfd_create("bare", MFD_CLOEXEC) : -1;
      epoll_event event{};
      event.events = EPOLLIN;
      event.data.ptr = &stream;
      epoll_ctl(epoll_, EPOLL_CTL_ADD, job_.tcp ? stream.control : stream.media, &event);
    }
    thread_ = std::thread([this] { Run(); });
    return true;
  }

  ReceiveTotals Totals() override {
    ReceiveTotals totals;
    totals.fewestFrames = ~std::uint64_t{0};
    for (const Stream& stream : streams_) {
      const std::uint64_t frames = stream.frames.load(std::memory_order_relaxed);
      const std::uint64_t bytes = stream.bytes.load(std::memory_order_relaxed);
      totals.frames += frames;
      totals.fewestFrames = std::min(totals.fewestFrames, frames);
      totals.bytes += bytes;
      totals.lostPackets += stream.lost.load(std::memory_order_relaxed);
      totals.delivering += bytes > 0 ? 1 : 0;
    }
    return totals;
  }

 private:
  struct Stream {
    int control = -1;
    int media = -1;
    int reports = -1;
    int file = -1;
    off_t written = 0;
    bool any = false;
    std::uint16_t sequence = 0;
    std::atomic<std::uint64_t> frames{0};
    std::atomic<std::uint64_t> bytes{0};
    std::atomic<std::uint64_t> lost{0};
  };

  static int BoundDatagramSocket(unsigned* port) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    bind(descriptor, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
    setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer);
    *port = ntohs(address.sin_port);
    return descriptor;
  }

  // One request and the head of its answer.
  static std::string Exchange(const Stream& stream, const std::string& request) {
    send(stream.control, request.data(), request.size(), MSG_NOSIGNAL);
    std::string answer;
    char c = 0;
    while (!answer.ends_with("\r\n\r\n") && recv(stream.control, &c, 1, 0) == 1) {
      answer += c;
    }
    return answer;
  }

  bool Negotiate(Stream& stream) {
    stream.control = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(job_.port));
    if (connect(stream.control, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return false;
    }
    std::string transport = "RTP/AVP/TCP;unicast;interleaved=0-1";
    if (!job_.tcp) {
      unsigned media = 0;
      unsigned reports = 0;
      stream.media = BoundDatagramSocket(&media);
      stream.reports = BoundDatagramSocket(&reports);
      transport =
          "RTP/AVP;unicast;client_port=" + std::to_string(media) + "-" + std::to_string(reports);
    }
    const std::string setUp = Exchange(
        stream,
        "SETUP rtsp://127.0.0.1/clip RTSP/1.0\r\nCSeq: 1\r\nTransport: " + transport + "\r\n\r\n");
    const std::string play =
        Exchange(stream, "PLAY rtsp://127.0.0.1/clip RTSP/1.0\r\nCSeq: 2\r\n\r\n");
    return setUp.starts_with("RTSP/1.0 200") && play.starts_with("RTSP/1.0 200");
  }

  void Run() {
    std::array<epoll_event, 256> events{};
    while (!stop_.load(std::memory_order_relaxed)) {
      const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), 100);
      for (int i = 0; i < count; ++i) {
        Take(*static_cast<Stream*>(events[static_cast<std::size_t>(i)].data.ptr));
      }
    }
  }

  // One receive call; the level-triggered wait reports what is left.
  void Take(Stream& stream) {
    const auto got =
        recv(job_.tcp ? stream.control : stream.media, buffer_.data(), kBuffer, MSG_DONTWAIT);
    if (got <= 0) {
      return;
    }
    const auto add = [](std::atomic<std::uint64_t>& counter, std::uint64_t by) {
      counter.store(counter.load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
    };
    add(stream.bytes, static_cast<std::uint64_t>(got));
    if (!job_.tcp && got > 4) {
      const auto sequence = static_cast<std::uint16_t>(buffer_[2] << 8 | buffer_[3]);
      const auto missing = static_cast<std::uint16_t>(sequence - stream.sequence - 1);
      add(stream.lost, stream.any ? missing : 0);
      stream.any = true;
      stream.sequence = sequence;
      add(stream.frames, buffer_[1] >> 7);
    }
    if (write_) {
      stream.written += pwrite(stream.file, buffer_.data(), static_cast<std::size_t>(got),
                               stream.written % kFileSize);
    }
  }

  ReceiveJob job_;
  const bool write_;
  const int epoll_;
  std::deque<Stream> streams_;
  std::array<std::uint8_t, kBuffer> buffer_{};
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace

std::unique_ptr<Receiver> MakeBareReceiver(const ReceiveJob& job) {
  return std::make_unique<BareReceiver>(job);
}

}  // namespace bench
