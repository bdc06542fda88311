#include "bench/support/stream_server.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string_view>

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kBurst = 8;  // packets that leave together
constexpr std::chrono::milliseconds kBurstDistance{1};
constexpr std::chrono::milliseconds kPictureTime{40};
constexpr std::uint32_t kPictureTicks = 3600;  // of the 90 kHz clock
constexpr std::chrono::milliseconds kLate{500};
constexpr std::chrono::seconds kReportTime{5};
constexpr std::size_t kMostBacklog = 8 << 20;
constexpr std::size_t kRtpHeader = 12;
constexpr std::size_t kPrefix = 4;
constexpr std::size_t kReport = 28;

void Put16(std::uint8_t* at, std::size_t value) {
  at[0] = static_cast<std::uint8_t>(value >> 8);
  at[1] = static_cast<std::uint8_t>(value);
}
void Put32(std::uint8_t* at, std::uint32_t value) {
  Put16(at, value >> 16);
  Put16(at + 2, value & 0xFFFF);
}

sockaddr_in Loopback(unsigned port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(static_cast<std::uint16_t>(port));
  return address;
}

int BoundSocket(int type, unsigned port, unsigned* bound) {
  const int descriptor = socket(AF_INET, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  sockaddr_in address = Loopback(port);
  socklen_t size = sizeof address;
  if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
      getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
    close(descriptor);
    return -1;
  }
  *bound = ntohs(address.sin_port);
  return descriptor;
}

// The text behind `name` up to the end of its line; empty when it is not there.
std::string_view Field(std::string_view message, std::string_view name) {
  const std::size_t at = message.find(name);
  if (at == std::string_view::npos) {
    return {};
  }
  const std::string_view rest = message.substr(at + name.size());
  return rest.substr(0, rest.find('\r'));
}

struct Client {
  int control = -1;
  std::string input;
  bool interleaved = false;
  bool playing = false;
  sockaddr_in rtp{};
  sockaddr_in rtcp{};
  std::uint32_t ssrc = 0;
  std::uint32_t timestamp = 0;
  std::uint32_t packets = 0;
  std::uint32_t octets = 0;
  std::uint16_t sequence = 1;
  std::size_t frame = 0;
  std::size_t packet = 0;       // the next one of the frame
  Clock::time_point frameTime;  // when the frame began
  Clock::time_point due;
  Clock::time_point reportDue;
  std::vector<std::uint8_t> backlog;  // what the connection did not take yet
};

class StreamServer {
 public:
  explicit StreamServer(const PacketizedClip& clip);
  int Run();

 private:
  void Watch(int descriptor);
  bool OpenSockets();
  void Accept();
  bool Read(Client& client);
  void Answer(Client& client, std::string_view request);
  bool SetUp(Client& client, std::string_view request, std::string* headers);
  void SendDue(Clock::time_point now);
  bool SendBurst(Client& client);
  bool SendReport(Client& client);
  bool SendOnConnection(Client& client, std::span<iovec> parts);
  void Drain(int descriptor);

  const PacketizedClip& clip_;
  int epoll_ = epoll_create1(EPOLL_CLOEXEC);
  int timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK);
  int listener_ = -1;
  int rtp_ = -1;
  int rtcp_ = -1;
  unsigned port_ = 0;
  unsigned rtpPort_ = 0;
  unsigned rtcpPort_ = 0;
  std::uint32_t sessions_ = 0;
  std::vector<std::unique_ptr<Client>> clients_;
};

StreamServer::StreamServer(const PacketizedClip& clip) : clip_(clip) {}

void StreamServer::Watch(int descriptor) {
  epoll_event event{};
  event.events = EPOLLIN;
  event.data.fd = descriptor;
  epoll_ctl(epoll_, EPOLL_CTL_ADD, descriptor, &event);
}

bool StreamServer::OpenSockets() {
  listener_ = BoundSocket(SOCK_STREAM, 0, &port_);
  for (int attempt = 0; attempt < 100 && rtcp_ < 0; ++attempt) {
    close(rtp_);
    rtp_ = BoundSocket(SOCK_DGRAM, 0, &rtpPort_);
    if (rtp_ >= 0 && rtpPort_ % 2 == 0) {
      rtcp_ = BoundSocket(SOCK_DGRAM, rtpPort_ + 1, &rtcpPort_);
    }
  }
  if (listener_ < 0 || rtcp_ < 0 || listen(listener_, 256) != 0) {
    return false;
  }
  const itimerspec each{{0, 1'000'000}, {0, 1'000'000}};
  timerfd_settime(timer_, 0, &each, nullptr);
  for (const int descriptor : {listener_, rtp_, rtcp_, timer_, STDIN_FILENO}) {
    Watch(descriptor);
  }
  return true;
}

int StreamServer::Run() {
  if (!OpenSockets()) {
    std::perror("stream server");
    return 1;
  }
  std::printf("%u\n", port_);
  std::fflush(stdout);
  std::array<epoll_event, 64> events{};
  for (;;) {
    const int count = epoll_wait(epoll_, events.data(), static_cast<int>(events.size()), -1);
    for (const epoll_event& event :
         std::span(events).first(static_cast<std::size_t>(std::max(count, 0)))) {
      const int descriptor = event.data.fd;
      if (descriptor == STDIN_FILENO) {
        return 0;
      }
      if (descriptor == listener_) {
        Accept();
      } else if (descriptor == timer_ || descriptor == rtp_ || descriptor == rtcp_) {
        Drain(descriptor);
      } else {
        std::erase_if(clients_, [&](const auto& client) {
          if (client->control != descriptor || Read(*client)) {
            return false;
          }
          close(descriptor);
          return true;
        });
      }
    }
    SendDue(Clock::now());
  }
}

void StreamServer::Drain(int descriptor) {
  std::array<char, 2048> unused;
  while (read(descriptor, unused.data(), unused.size()) > 0) {
  }
}

void StreamServer::Accept() {
  const int descriptor = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (descriptor < 0) {
    return;
  }
  const int on = 1;
  setsockopt(descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  auto client = std::make_unique<Client>();
  client->control = descriptor;
  client->ssrc = 0x10000000 + ++sessions_;
  clients_.push_back(std::move(client));
  Watch(descriptor);
}

// False when the client is gone.
bool StreamServer::Read(Client& client) {
  std::array<char, 4096> data;
  const auto got = read(client.control, data.data(), data.size());
  if (got <= 0) {
    return got < 0 && errno == EAGAIN;
  }
  client.input.append(data.data(), static_cast<std::size_t>(got));
  for (;;) {
    std::string& input = client.input;
    if (input.starts_with('$')) {  // a receiver report
      const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(input[i]); };
      if (input.size() < kPrefix || input.size() < kPrefix + (byte(2) * 256u + byte(3))) {
        return true;
      }
      input.erase(0, kPrefix + (byte(2) * 256u + byte(3)));
      continue;
    }
    const std::size_t end = input.find("\r\n\r\n");
    if (end == std::string::npos) {
      return true;
    }
    const std::string request = input.substr(0, end + 4);
    const std::string body(Field(request, "Content-Length: "));
    input.erase(0, end + 4 + (body.empty() ? 0 : std::stoul(body)));
    Answer(client, request);
  }
}

bool StreamServer::SetUp(Client& client, std::string_view request, std::string* headers) {
  const std::string transport(Field(request, "Transport: "));
  client.interleaved = transport.find("TCP") != std::string::npos;
  if (client.interleaved) {
    *headers += "Transport: RTP/AVP/TCP;unicast;interleaved=0-1\r\n";
    return true;
  }
  unsigned rtp = 0;
  unsigned rtcp = 0;
  const std::size_t at = transport.find("client_port=");
  if (at == std::string::npos ||
      std::sscanf(transport.c_str() + at, "client_port=%u-%u", &rtp, &rtcp) != 2) {
    return false;
  }
  client.rtp = Loopback(rtp);
  client.rtcp = Loopback(rtcp);
  *headers += "Transport: RTP/AVP;unicast;client_port=" + std::to_string(rtp) + "-" +
              std::to_string(rtcp) + ";server_port=" + std::to_string(rtpPort_) + "-" +
              std::to_string(rtcpPort_) + "\r\n";
  return true;
}

void StreamServer::Answer(Client& client, std::string_view request) {
  const std::string_view method = request.substr(0, request.find(' '));
  std::string status = "200 OK";
  std::string headers = "CSeq: " + std::string(Field(request, "CSeq: ")) + "\r\n";
  std::string body;
  if (method == "OPTIONS") {
    headers += "Public: OPTIONS, DESCRIBE, SETUP, PLAY, GET_PARAMETER, TEARDOWN\r\n";
  } else if (method == "DESCRIBE") {
    body =
        "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=clip\r\nc=IN IP4 0.0.0.0\r\nt=0 0\r\n"
        "a=control:*\r\na=range:npt=now-\r\nm=video 0 RTP/AVP 96\r\n" +
        clip_.MediaLines() + "a=framerate:25\r\na=control:stream=0\r\n";
    headers +=
        "Content-Type: application/sdp\r\nContent-Base: rtsp://127.0.0.1:" + std::to_string(port_) +
        "/clip/\r\n";
  } else {
    headers += "Session: " + std::to_string(client.ssrc) + ";timeout=60\r\n";
  }
  if (method == "SETUP" && !SetUp(client, request, &headers)) {
    status = "461 Unsupported Transport";
  }
  if (!body.empty()) {
    headers += "Content-Length: " + std::to_string(body.size()) + "\r\n";
  }
  const std::string answer = "RTSP/1.0 " + status + "\r\n" + headers + "\r\n" + body;
  iovec part{const_cast<char*>(answer.data()), answer.size()};
  SendOnConnection(client, {&part, 1});
  client.playing = (client.playing || method == "PLAY") && method != "TEARDOWN";
  if (method == "PLAY") {
    client.frameTime = client.due = client.reportDue = Clock::now();
  }
}

void StreamServer::SendDue(Clock::time_point now) {
  for (const std::unique_ptr<Client>& client : clients_) {
    if (!client->playing) {
      continue;
    }
    if (!client->backlog.empty()) {
      SendOnConnection(*client, {});
    }
    if (now - client->due > kLate) {  // held up: go on from now instead of catching up in a burst
      client->frameTime += now - client->due;
      client->due = now;
    }
    while (client->due <= now && client->playing) {
      client->playing = SendBurst(*client);
    }
    if (client->reportDue <= now && client->playing) {
      client->playing = SendReport(*client);
      client->reportDue = now + kReportTime;
    }
  }
}

bool StreamServer::SendBurst(Client& client) {
  const auto packets = clip_.Frame(client.frame).subspan(client.packet);
  const std::size_t count = std::min(packets.size(), kBurst);
  std::array<std::array<std::uint8_t, kPrefix + kRtpHeader>, kBurst> headers;
  std::array<iovec, 2 * kBurst> parts;
  std::array<mmsghdr, kBurst> messages{};
  for (std::size_t i = 0; i < count; ++i) {
    const PacketizedClip::Packet& packet = packets[i];
    std::uint8_t* const header = headers[i].data();
    header[0] = '$';
    header[1] = 0;
    Put16(header + 2, kRtpHeader + packet.size);
    header[4] = 0x80;
    header[5] = static_cast<std::uint8_t>(96 | (packet.marker ? 0x80 : 0));
    Put16(header + 6, client.sequence++);
    Put32(header + 8, client.timestamp);
    Put32(header + 12, client.ssrc);
    const std::size_t skipped = client.interleaved ? 0 : kPrefix;
    parts[2 * i] = {header + skipped, kPrefix + kRtpHeader - skipped};
    parts[2 * i + 1] = {const_cast<std::uint8_t*>(clip_.Data(packet)), packet.size};
    msghdr& message = messages[i].msg_hdr;
    message.msg_name = &client.rtp;
    message.msg_namelen = sizeof client.rtp;
    message.msg_iov = &parts[2 * i];
    message.msg_iovlen = 2;
    client.octets += static_cast<std::uint32_t>(packet.size);
  }
  client.packets += static_cast<std::uint32_t>(count);
  if (client.interleaved) {
    if (!SendOnConnection(client, std::span(parts).first(2 * count))) {
      return false;
    }
  } else {
    for (std::size_t sent = 0; sent < count;) {
      const int result = sendmmsg(rtp_, &messages[sent], static_cast<unsigned>(count - sent), 0);
      sent += result > 0 ? static_cast<std::size_t>(result) : 1;  // a closed port's error: go on
    }
  }
  client.packet += count;
  client.due += kBurstDistance;
  if (count == packets.size()) {
    client.packet = 0;
    client.frame = (client.frame + 1) % clip_.FrameCount();
    client.timestamp += kPictureTicks;
    client.frameTime += kPictureTime;
    client.due = std::max(client.due, client.frameTime);
  }
  return true;
}

bool StreamServer::SendReport(Client& client) {
  std::array<std::uint8_t, kPrefix + kReport> report{};
  std::uint8_t* const body = report.data() + kPrefix;
  report[0] = '$';
  report[1] = 1;
  Put16(&report[2], kReport);
  body[0] = 0x80;
  body[1] = 200;  // sender report (RFC 3550, 6.4.1)
  Put16(body + 2, kReport / 4 - 1);
  Put32(body + 4, client.ssrc);
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  Put32(body + 8, static_cast<std::uint32_t>(now.tv_sec + 2208988800));
  Put32(body + 12, static_cast<std::uint32_t>(static_cast<double>(now.tv_nsec) * 4.294967296));
  Put32(body + 16, client.timestamp);
  Put32(body + 20, client.packets);
  Put32(body + 24, client.octets);
  if (client.interleaved) {
    iovec part{report.data(), report.size()};
    return SendOnConnection(client, {&part, 1});
  }
  sendto(rtcp_, body, kReport, 0, reinterpret_cast<const sockaddr*>(&client.rtcp),
         sizeof client.rtcp);
  return true;
}

// What the connection does not take is kept and goes first the next time. False when it is broken
// or far behind.
bool StreamServer::SendOnConnection(Client& client, std::span<iovec> parts) {
  std::vector<std::uint8_t>& backlog = client.backlog;
  const auto sendParts = [&](std::span<iovec> list) {
    msghdr message{};
    message.msg_iov = list.data();
    message.msg_iovlen = list.size();
    return sendmsg(client.control, &message, MSG_DONTWAIT | MSG_NOSIGNAL);
  };
  if (!backlog.empty()) {
    iovec kept{backlog.data(), backlog.size()};
    const auto sent = sendParts({&kept, 1});
    backlog.erase(backlog.begin(), backlog.begin() + std::max<ssize_t>(sent, 0));
  }
  ssize_t sent = 0;
  if (backlog.empty() && !parts.empty()) {
    sent = sendParts(parts);
    if (sent < 0 && errno != EAGAIN) {
      return false;
    }
    sent = std::max<ssize_t>(sent, 0);
  }
  for (const iovec& part : parts) {
    const auto size = static_cast<ssize_t>(part.iov_len);
    const ssize_t done = std::min(sent, size);
    const auto* const data = static_cast<const std::uint8_t*>(part.iov_base);
    backlog.insert(backlog.end(), data + done, data + size);
    sent -= done;
  }
  return backlog.size() <= kMostBacklog;
}

}  // namespace

int ServeClip(const PacketizedClip& clip) {
  return StreamServer(clip).Run();
}

}  // namespace bench
