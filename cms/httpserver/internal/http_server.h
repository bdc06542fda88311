// HttpServer, the embedded HTTP server: its listening socket, its handlers and its connections.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "cms/httpserver/http_server_types.h"
#include "cms/httpserver/internal/access_list.h"
#include "cms/httpserver/internal/connection_threads.h"
#include "cms/httpserver/internal/digest_nonces.h"
#include "cms/httpserver/internal/digest_verifier.h"
#include "cms/httpserver/internal/server_certificate.h"
#include "cms/httpserver/internal/share.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/wake_up.h"

namespace cms {

// As HttpLoginGuard.
using LoginGuard =
    std::function<int(HttpRequest* request, const std::string& user, HttpLoginStep step)>;

struct HttpServerOptions {
  std::uint16_t port = 0;
  std::uint32_t address = INADDR_ANY;  // to listen on, host byte order
  std::size_t maxConnections = 0;      // 0: HttpServer::UsualMost
  PasswordLookup passwordLookup;
};

struct HttpHandler {
  std::string name;
  std::function<int(HttpRequest* request, const char* marker)> callback;
};

}  // namespace cms

// Each connection has a thread of its own while it is served, for one request. One controlling
// thread starts, closes and destroys; handlers, lists and rules may be changed by any thread at any
// time. Close waits for the running handlers, so none of them may call it. No thread of the
// server's is left once it has returned.
//
// So that clients cannot take the descriptors that the host needs for other things, only so many
// connections are served at once (the others wait in the system's backlog), and a quarter of these
// at most are kept for the sake of their end alone.
class HttpServer {
 public:
  explicit HttpServer(cms::HttpServerOptions options);
  ~HttpServer();  // closes
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  // A quarter of the descriptors that the process may have now, 4,096 at most.
  static std::size_t UsualMost();

  bool Start();
  // From the next start on every connection is by TLS, and whole requests are read. False when the
  // files do not do, or the server runs.
  bool SetTls(cms::ServerCertificate::Files files, std::string* problem);
  // Returns when every handler has returned. Their sends fail from now on.
  void Close();
  int StopListening() { return threads_.StopAccepting(); }
  // While started the port that is bound, else the configured one.
  std::uint16_t Port() const { return boundPort_.load(std::memory_order_relaxed); }

  // Handlers stay where they are for as long as the server.
  void Register(cms::HttpHandler handler);
  const cms::HttpHandler* FindHandler(std::string_view command) const;
  const cms::PasswordLookup& Passwords() const { return options_.passwordLookup; }

  // Before the start.
  void GuardLogins(cms::LoginGuard guard) { loginGuard_ = std::move(guard); }
  const cms::LoginGuard& Guard() const { return loginGuard_; }

  void ChangeAccessList(const AccessRange& range, int operation);
  void ClearAccessList();
  int AllowAccess(std::uint32_t address) const;

  // The rules, all off at first.
  struct Rules {
    std::atomic<bool> checksAccess{false};
    std::atomic<bool> firstLineOnly{false};
    std::atomic<bool> wholeRequests{false};
    std::atomic<bool> strictDigest{false};
    std::atomic<bool> sha256Digest{false};  // with strictDigest
  };
  Rules& GetRules() { return rules_; }
  const Rules& GetRules() const { return rules_; }

  // For the connections.
  bool IsStopping() const { return !running_.load(std::memory_order_acquire); }
  int StopDescriptor() const { return stop_->Descriptor(); }
  bool IsCrowded() const { return threads_.IsCrowded(); }
  cms::Share& Pauses() { return pauses_; }
  cms::Share& Lingers() { return lingers_; }
  const cms::DigestNonces& Nonces() const { return nonces_; }
  cms::ServerCertificate* Certificate() const { return certificate_.get(); }  // nullptr: no TLS

 private:
  const cms::HttpServerOptions options_;
  const cms::DigestNonces nonces_;
  Rules rules_;
  std::unique_ptr<cms::ServerCertificate> certificate_;  // changes only while nothing runs
  cms::LoginGuard loginGuard_;
  std::atomic<bool> running_{false};
  std::atomic<std::uint16_t> boundPort_;
  cms::Share pauses_;
  cms::Share lingers_;
  std::unique_ptr<cms::WakeUp> stop_;  // signalled for good by Close; made anew by Start

  mutable CMSCritical settingsLock_;
  std::deque<cms::HttpHandler> handlers_ CMS_GUARDED_BY(settingsLock_);
  cms::AccessList accessList_ CMS_GUARDED_BY(settingsLock_);

  cms::ConnectionThreads threads_;
};
