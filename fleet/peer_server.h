// What a recorder answers the others of its fleet, and those who look for its recordings.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "fleet/camera_secret.h"
#include "fleet/fleet_figures.h"
#include "fleet/held_recordings.h"
#include "fleet/token_log.h"

class HttpServer;
class HttpRequest;

namespace cms::fleet {

struct PeerServerOptions {
  std::uint16_t port = 0;     // 0: the system chooses
  std::uint32_t address = 0;  // to listen on, as a number of AccessRange; 0: all
  bool openMetrics = false;   // /metrics without a login, which Prometheus cannot do
  // Of TLS, in PEM; empty: none. Who has no certificate of the authority's learns nothing.
  std::string certificateFile = {};
  std::string keyFile = {};
  std::string authorityFile = {};
};

// Behind the login of the fleet, but for /metrics where that is open:
//   /auth/metrics     for Prometheus
//   /auth/claims      what it records, and by which claims
//   /auth/recordings  ?site=N&from=MS&to=MS: its files of that time
//   /auth/index       ?name=FILE: of one of those
//   /auth/file        ?name=FILE&from=BYTE&to=BYTE: a part of it, both included
// Handlers run on threads of their connections.
class PeerServer {
 public:
  // Listens from here on; throws std::runtime_error when it cannot. The others outlive it.
  PeerServer(PeerServerOptions options, const SecretKeys& keys, HeldRecordings& recordings,
             const TokenLog& tokens, std::function<FleetFigures()> figures);
  ~PeerServer();
  PeerServer(const PeerServer&) = delete;
  PeerServer& operator=(const PeerServer&) = delete;

  int Port() const;

 private:
  using Handler = void (PeerServer::*)(HttpRequest*);
  template <Handler handler>
  static int Call(void* server, HttpRequest* request, const char*);
  static int Password(void* server, const std::string& user, std::string& password);
  void Metrics(HttpRequest* request);
  void Claims(HttpRequest* request);
  void Recordings(HttpRequest* request);
  void Index(HttpRequest* request);
  void File(HttpRequest* request);
  std::string PathOf(HttpRequest* request) const;

  const PeerServerOptions options_;
  const SecretKeys& keys_;
  HeldRecordings& recordings_;
  const TokenLog& tokens_;
  const std::function<FleetFigures()> figures_;
  HttpServer* server_ = nullptr;
};

}  // namespace cms::fleet
