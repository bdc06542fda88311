// HttpServer, the embedded HTTP server: its listening socket, its handlers and its connections.
#pragma once

#include <netinet/in.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "cms/httpserver/http_server_types.h"
#include "cms/httpserver/internal/access_list.h"
#include "cms/httpserver/internal/http_request.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/event.h"
#include "cms/runtime/wake_up.h"

// One accept thread, and one thread for each connection, which serves one request and ends. One
// controlling thread starts, closes and destroys; handlers and lists may be changed by any thread
// at any time. Close waits for the running handlers, so none of them may call it.
//
// Ended connection threads are joined by the accept thread, the last of them by Close: none of them
// touches the server once Close has returned. No more than kMaxConnections are served at once;
// others wait in the system's backlog.
class HttpServer {
 public:
  static constexpr std::size_t kMaxConnections = 4096;

  explicit HttpServer(const tHttpServerConfig& config);
  ~HttpServer();  // closes
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  bool Start();
  // Returns when every handler has returned. Their sends fail from now on.
  void Close();
  int StopListening();
  // While started the port that is bound, else the configured one.
  std::uint16_t Port() const { return bound_port_.load(std::memory_order_relaxed); }

  void Register(std::string_view name, EgiCallback callback);
  std::optional<EgiHandler> FindHandler(std::string_view command) const;
  HttpPasswordLookup PasswordLookup() const { return config_.passwordLookup; }

  void ChangeAccessList(const AccessRange& range, int operation);
  void ClearAccessList();
  void CheckAccess(bool check) { checks_access_.store(check, std::memory_order_relaxed); }
  void ReadFirstLineOnly(bool only) { first_line_only_.store(only, std::memory_order_relaxed); }
  bool ReadsFirstLineOnly() const { return first_line_only_.load(std::memory_order_relaxed); }
  bool ChecksAccess() const { return checks_access_.load(std::memory_order_relaxed); }
  int AllowAccess(std::uint32_t address) const;

  // For the connections.
  bool IsStopping() const { return !running_.load(std::memory_order_acquire); }
  int StopDescriptor() const { return stop_->Descriptor(); }
  // So many connections at most linger at once; the others close hard.
  static constexpr int kMaxLingering = 256;
  bool BeginLinger();
  void EndLinger() { lingering_.fetch_sub(1, std::memory_order_relaxed); }

 private:
  using Connections = std::list<std::unique_ptr<HttpRequest>>;
  struct ConnectionStart;
  void AcceptLoop();
  void Adopt(int descriptor, const sockaddr_in& client);
  static void* ConnectionThread(void* start);
  void Finish(ConnectionStart& own);
  std::size_t JoinEnded();

  const tHttpServerConfig config_;
  std::atomic<bool> running_{false};
  std::atomic<bool> checks_access_{false};
  std::atomic<bool> first_line_only_{false};
  std::atomic<int> listening_{-1};  // closed by the accept thread
  std::atomic<std::uint16_t> bound_port_;
  std::atomic<int> lingering_{0};
  std::thread accept_thread_;
  std::unique_ptr<cms::WakeUp> stop_;  // signalled for good by Close; made anew by Start

  mutable CMSCritical settings_lock_;
  std::vector<EgiHandler> handlers_ CMS_GUARDED_BY(settings_lock_);
  cms::AccessList access_list_ CMS_GUARDED_BY(settings_lock_);

  CMSCritical connections_lock_;
  Connections connections_ CMS_GUARDED_BY(connections_lock_);
  std::list<pthread_t> ended_ CMS_GUARDED_BY(connections_lock_);  // to be joined
  cms::Event idle_;  // set under the lock while there are no connections
};
