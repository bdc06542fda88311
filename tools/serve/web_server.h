// The web server of `orvanta serve`: which request is answered by whom.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cms/exports/http_server_exports.h"
#include "tools/serve/calendar.h"
#include "tools/serve/play_session.h"
#include "tools/serve/serve_site.h"
#include "tools/serve/web_request.h"

namespace tools {

struct WebServerOptions {
  std::uint16_t port = 0;
  // Who may log in. Without a name nothing is asked of viewers, and nothing can be changed.
  std::string user;
  std::string password;
  std::vector<AccessRange> access;  // empty: every address
  std::uint32_t address = 0;        // to listen on, as a number of AccessRange; 0: all
  // What this machine is called in the addresses of browsers, besides its addresses. Where nobody
  // logs in, requests for other hosts are refused.
  std::vector<std::string> names;
};

// Handlers run on threads of their connections; they watch for the stop signal.
class WebServer {
 public:
  // Listens from here on. Throws std::runtime_error when it cannot. The sites outlive it.
  WebServer(const WebServerOptions& options, std::vector<std::unique_ptr<ServeSite>>& sites);
  ~WebServer();  // once a stop was asked for: returns when every handler has returned
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  int Port() const { return GetHttpServerPort(server_); }
  int Watchers() const { return watchers_; }

 private:
  using Handler = void (WebServer::*)(WebRequest&);
  template <Handler handler>
  static int Call(void* server, HttpRequest* request, const char*);
  static int Password(void* server, const std::string& user, std::string& password);
  static int Page(void* server, HttpRequest* request, const char*);
  void Register(const std::string& name, EgiCallbackEx callback);

  void Status(WebRequest& request);
  void Live(WebRequest& request);
  void Days(WebRequest& request);
  void Record(WebRequest& request);
  void Recordings(WebRequest& request);
  void Play(WebRequest& request);
  void Transport(WebRequest& request);

  const WebServerOptions options_;
  std::vector<std::unique_ptr<ServeSite>>& sites_;
  Calendar calendar_;
  std::atomic<int> watchers_{0};
  std::mutex sessionsLock_;
  std::map<std::string, PlaySession*, std::less<>> sessions_;  // guarded by it
  HttpServer* server_ = nullptr;
};

}  // namespace tools
