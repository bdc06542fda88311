// The web server of `orvanta serve`: which request is answered by whom.
#pragma once

#include <array>
#include <cstdint>
#include <ctime>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "cms/exports/http_server_exports.h"
#include "tools/serve/audit.h"
#include "tools/serve/calendar.h"
#include "tools/serve/clip_answers.h"
#include "tools/serve/live_answers.h"
#include "tools/serve/people.h"
#include "tools/serve/play_session.h"
#include "tools/serve/recorded_answers.h"
#include "tools/serve/serve_site.h"
#include "tools/serve/sessions.h"
#include "tools/serve/site_answers.h"
#include "tools/serve/users.h"
#include "tools/serve/web_request.h"
#include "tools/service/recorder_figures.h"

namespace tools {

struct WebServerOptions {
  std::uint16_t port = 0;
  // Who may log in. Null: nothing is asked of viewers, and nothing can be changed.
  std::shared_ptr<Users> users;
  SessionLimits sessions;
  std::string audit;     // the file that tells who did what; empty: none
  std::string recorder;  // the configuration file whose sites may be changed; empty: none
  std::vector<AccessRange> access;  // empty: every address
  std::uint32_t address = 0;        // to listen on, as a number of AccessRange; 0: all
  // Of TLS, in PEM; empty: the page is plain HTTP.
  std::string certificateFile = {};
  std::string keyFile = {};
  // What this machine is called in the addresses of browsers, besides its addresses. Where nobody
  // logs in, requests for other hosts are refused.
  std::vector<std::string> names;
  // What /metrics shows of the program, on any thread; empty: the page's sites and the process.
  std::function<RecorderFigures()> figures = {};
  DataRoots roots = {};  // whose recordings are shown; empty: that of the process alone
};

// Handlers run on threads of their connections; they watch for the stop signal.
class WebServer {
 public:
  // Listens from here on. Throws std::runtime_error when it cannot.
  WebServer(const WebServerOptions& options, SiteList sites);
  ~WebServer();  // once a stop was asked for: returns when every handler has returned
  WebServer(const WebServer&) = delete;
  WebServer& operator=(const WebServer&) = delete;

  int Port() const { return GetHttpServerPort(server_); }
  int Watchers() const { return live_.Watchers(); }
  bool IsSecure() const { return !options_.certificateFile.empty(); }
  const char* Scheme() const { return IsSecure() ? "https://" : "http://"; }

 private:
  // What there is to ask for: nothing is answered that is not in this table.
  struct Route {
    const char* path;
    Role role;   // that it needs
    bool noted;  // in the audit log
    void (WebServer::*handler)(WebRequest&);
  };
  static constexpr std::size_t kRouteCount = 20;
  static const std::array<Route, kRouteCount> kRoutes;
  struct Entrance {
    WebServer* server;
    const Route* route;
    bool byDigest;  // the server has proven who asks; else a browser shows a session's cookie
  };
  static int Enter(void* entrance, HttpRequest* request, const char*);
  void Answer(WebRequest& request, const Entrance& entrance);
  void AnswerVisitor(WebRequest& request, const Route& route, const Visitor& visitor);
  void Note(const WebRequest& request, const Route& route, const Visitor& visitor);
  RecorderFigures OwnFigures() const;
  static int Password(void* server, const std::string& user, std::string& password);
  std::shared_ptr<ServeSite> SiteOf(const WebRequest& request) const;
  void RegisterPage();

  template <void (WebServer::*show)(WebRequest&)>
  static int Show(void* server, HttpRequest* request, const char*);
  void Index(WebRequest& request);
  void Login(WebRequest& request) { people_.AnswerLogin(request, loginPage_); }
  void Logout(WebRequest& request) { people_.AnswerLogout(request); }
  void AuditLines(WebRequest& request);
  void Sites(WebRequest& request) { siteAnswers_.Sites(request); }
  void Try(WebRequest& request) { siteAnswers_.Try(request); }
  void Status(WebRequest& request);
  void Metrics(WebRequest& request);
  void Live(WebRequest& request) { live_.Pictures(request); }
  void Video(WebRequest& request) { live_.Video(request); }
  void Sound(WebRequest& request) { live_.Sound(request); }
  void Days(WebRequest& request);
  void Record(WebRequest& request);
  void Recordings(WebRequest& request);
  void Play(WebRequest& request);
  void Transport(WebRequest& request);
  void Keep(WebRequest& request);
  void Ptz(WebRequest& request);
  void Stretch(WebRequest& request) { recorded_.Stretch(request); }
  void Thumbnail(WebRequest& request) { recorded_.Thumbnail(request); }
  void Storage(WebRequest& request) { recorded_.Storage(request); }
  void Export(WebRequest& request) { clips_.Make(request); }
  void Clip(WebRequest& request) { clips_.Give(request); }

  const WebServerOptions options_;
  const SiteList sites_;
  Audit audit_;
  People people_;
  Beginnings moves_;
  LiveAnswers live_{sites_};
  const std::string root_;  // of the data
  const DataRoots roots_ =
      options_.roots ? options_.roots : DataRoots([this] { return std::vector{root_}; });
  Calendar calendar_{roots_};
  RecordedAnswers recorded_{roots_};
  ClipAnswers clips_{root_, std::to_string(options_.port), roots_};
  SiteAnswers siteAnswers_{options_.recorder};
  struct PageAnswer {
    std::string text;
    const char* type;
  };
  std::deque<PageAnswer> page_;  // where they are they stay
  std::string indexPage_;
  std::string loginPage_;
  std::deque<Entrance> entrances_;  // likewise
  const std::int64_t startedAt_ = std::time(nullptr);
  std::mutex sessionsLock_;
  std::map<std::string, PlaySession*, std::less<>> sessions_;  // guarded by it
  HttpServer* server_ = nullptr;
};

}  // namespace tools
