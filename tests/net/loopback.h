// Real sockets on the loopback for the tests of the socket clients.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "cms/net/client_group.h"
#include "cms/net/tcp_client.h"
#include "cms/net/udp_client.h"

namespace test {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool kSanitized = true;
#else
inline constexpr bool kSanitized = false;
#endif

inline sockaddr_in Loopback(std::uint16_t port) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// A descriptor that closes itself.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  ~Descriptor() { Close(); }
  void Close() {
    if (value_ >= 0) {
      close(std::exchange(value_, -1));
    }
  }
  operator int() const { return value_; }  // NOLINT: used as the number that it is
  int Release() { return std::exchange(value_, -1); }

 private:
  int value_ = -1;
};

inline Descriptor BoundSocket(int type, std::uint16_t port = 0) {
  Descriptor made(socket(AF_INET, type | SOCK_CLOEXEC, 0));
  const sockaddr_in address = Loopback(port);
  return bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0
             ? std::move(made)
             : Descriptor();
}

inline std::uint16_t PortOf(int descriptor) {
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size);
  return ntohs(address.sin_port);
}

// A listening TCP socket; Accept blocks.
class Listener {
 public:
  explicit Listener(int backlog = 128) : socket_(BoundSocket(SOCK_STREAM)) {
    listen(socket_, backlog);
  }
  std::uint16_t Port() const { return PortOf(socket_); }
  Descriptor Accept() const { return Descriptor(accept4(socket_, nullptr, nullptr, SOCK_CLOEXEC)); }

 private:
  Descriptor socket_;
};

inline void SendTo(int descriptor, std::uint16_t port, const std::string& data) {
  const sockaddr_in to = Loopback(port);
  sendto(descriptor, data.data(), data.size(), 0, reinterpret_cast<const sockaddr*>(&to),
         sizeof to);
}

// Sets the soft limit of open descriptors for a scope.
class DescriptorLimit {
 public:
  explicit DescriptorLimit(rlim_t limit) {
    getrlimit(RLIMIT_NOFILE, &before_);
    const rlimit changed{limit, before_.rlim_max};
    setrlimit(RLIMIT_NOFILE, &changed);
  }
  ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &before_); }

 private:
  rlimit before_{};
};

class TcpClient : public TCPClientBase {
 public:
  using TCPClientBase::CloseSocket;
  using TCPClientBase::ConnectSocket;
  using TCPClientBase::LastSocketError;
  using TCPClientBase::Socket;
  using TCPClientBase::TCPClientBase;
  using TCPClientBase::TCPClientRecv;
  using TCPClientBase::TCPClientSend;
  ~TcpClient() override { OnStopTCPClient(true); }
  void OnPeerClosed() override { ++peerClosed; }
  void RunOwnThreads() {
    recvThread_ = std::thread(TCPClientRecvThrd, this);
    sendThread_ = std::thread(TCPClientSendThrd, this);
  }
  bool Start(std::uint16_t port, unsigned group) {
    return OnStartTCPClient(INADDR_LOOPBACK, port, group) != 0;
  }
  int Send(const std::string& data) {
    return OnSend(const_cast<char*>(data.data()), static_cast<int>(data.size()));
  }

  std::atomic<int> peerClosed{0};
};

class UdpClient : public UDPClientBase {
 public:
  using UDPClientBase::AdoptSocket;
  using UDPClientBase::LastSocketError;
  using UDPClientBase::Socket;
  using UDPClientBase::UDPClientRecv;
  using UDPClientBase::UDPClientSend;
  UdpClient() = default;
  explicit UdpClient(_UDPCLIENT_CONFIG config) { SetConfig(config); }
  ~UdpClient() override { OnStopUDPClient(); }
  void RunOwnThreads() {
    recvThread_ = std::thread(UDPClientRecvThrd, this);
    sendThread_ = std::thread(UDPClientSendThrd, this);
  }
  bool Start(int group) {
    return OnStartUDPClient() != 0 && EachClientGroupTable::Instance().Register(this, group) != 0;
  }
  int Send(const std::string& data) {
    return OnSend(const_cast<char*>(data.data()), static_cast<int>(data.size()));
  }
};

// What a callback received.
class Sink {
 public:
  void Add(const char* data, int length) {
    const std::lock_guard lock(mutex_);
    bytes_.append(data, static_cast<std::size_t>(length));
    ++calls_;
  }
  std::string Bytes() const {
    const std::lock_guard lock(mutex_);
    return bytes_;
  }
  std::size_t Size() const { return Bytes().size(); }
  int Calls() const {
    const std::lock_guard lock(mutex_);
    return calls_;
  }
  static void OnTcp(char* data, int length, void* sink) {
    static_cast<Sink*>(sink)->Add(data, length);
  }
  static void OnUdp(void* sink, char* data, int length) {
    static_cast<Sink*>(sink)->Add(data, length);
  }

 private:
  mutable std::mutex mutex_;
  std::string bytes_;
  int calls_ = 0;
};

inline tTcpClientParam TcpInto(Sink& sink) {
  tTcpClientParam param;
  param.recvCallback = Sink::OnTcp;
  param.recvContext = &sink;
  return param;
}

inline _UDPCLIENT_CONFIG UdpInto(Sink& sink) {
  _UDPCLIENT_CONFIG config;
  config.recvCallback = Sink::OnUdp;
  config.recvContext = &sink;
  return config;
}

// Bytes whose order shows.
inline std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525u + 1013904223u;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

}  // namespace test
