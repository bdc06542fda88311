// TLS in front of a server that speaks plainly: what a camera's rtsps port is.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace test {

// A certificate that has signed itself, for this host name or address, and its key.
class Certificate {
 public:
  explicit Certificate(const std::string& host);
  std::string Pem() const { return pem_; }
  std::string KeyPem() const { return keyPem_; }
  const std::string& Fingerprint() const { return fingerprint_; }  // "AB:CD:..."

 private:
  std::string pem_;
  std::string keyPem_;
  std::string fingerprint_;
};

// Accepts TLS connections on 127.0.0.1 and passes their bytes to a port there, and back.
class TlsFront {
 public:
  TlsFront(std::uint16_t serverPort, const Certificate& certificate);
  ~TlsFront();
  TlsFront(const TlsFront&) = delete;
  TlsFront& operator=(const TlsFront&) = delete;

  std::uint16_t Port() const { return port_; }
  // Of the server's URL the one of this port: "rtsps://localhost:PORT/..." of "rtsp://...".
  std::string Url(const std::string& serverUrl, const std::string& host = "127.0.0.1") const;
  // Has the sessions take new keys (RFC 8446, 4.6.3) at their next byte to the client.
  void ChangeKeys() { changeKeys_.store(changeKeys_.load() + 1); }

 private:
  void Accept();
  void Pass(int client);

  const std::uint16_t serverPort_;
  void* context_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  std::atomic<bool> stopping_{false};
  std::atomic<int> changeKeys_{0};
  std::mutex mutex_;
  std::vector<std::thread> sessions_;  // guarded by it
  std::thread acceptor_;
};

}  // namespace test
