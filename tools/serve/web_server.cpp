#include "tools/serve/web_server.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <deque>
#include <stdexcept>

#include "tools/serve/page.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using nlohmann::ordered_json;
using std::chrono::milliseconds;

// How often is looked for new pictures while somebody watches.
constexpr milliseconds kPictureTurn{40};
// Something is sent so often at least, so that a client that went is noticed.
constexpr milliseconds kSignOfLife{2000};

// Each decodes on threads of its own.
constexpr std::size_t kMostSessions = 16;

struct Counted {
  explicit Counted(std::atomic<int>& counter) : counter_(counter) { ++counter_; }
  ~Counted() { --counter_; }
  Counted(const Counted&) = delete;
  Counted& operator=(const Counted&) = delete;

 private:
  std::atomic<int>& counter_;
};

constexpr char kLoginMark[] = "data-login=\"\"";

}  // namespace

template <WebServer::Handler handler>
int WebServer::Call(void* server, HttpRequest* request, const char*) {
  auto& own = *static_cast<WebServer*>(server);
  WebRequest web(request);
  try {
    if (own.options_.user.empty()) {
      web.RequireHost(own.options_.names);
    }
    (own.*handler)(web);
  } catch (const BadRequest& error) {
    web.Refuse(kHttpBadRequest, error.what());
  } catch (const std::exception& error) {
    web.Refuse(kHttpServiceUnavailable, error.what());
  }
  return 0;
}

int WebServer::Password(void* server, const std::string& user, std::string& password) {
  const WebServerOptions& options = static_cast<WebServer*>(server)->options_;
  password = options.password;
  return !options.user.empty() && user == options.user ? 1 : 0;
}

// Everything but the page itself is behind Digest where there is somebody who can log in.
void WebServer::Register(const std::string& name, EgiCallbackEx callback) {
  RegisterEgiEx(server_, ("/auth" + name).c_str(), callback, this);
  if (options_.user.empty()) {
    RegisterEgiEx(server_, name.c_str(), callback, this);
  }
}

WebServer::WebServer(const WebServerOptions& options,
                     std::vector<std::unique_ptr<ServeSite>>& sites)
    : options_(options), sites_(sites) {
  const tHttpServerConfigEx config{options.port, &WebServer::Password, this, options.address};
  server_ = CreateHttpServerEx(&config);
  if (server_ == nullptr) {
    throw std::runtime_error("out of memory");
  }
  EnableWholeRequests(server_, 1);
  EnableStrictDigest(server_, 1);
  EnableWhiteBlackList(server_, options.access.empty() ? 0 : 1);
  for (const AccessRange& range : options.access) {
    SetWhiteBlackListInfo(server_, range.low, range.high, range.kind, kAccessListAdd);
  }
  RegisterEgiEx(server_, "/", &WebServer::Page, this);
  Register("/status", &WebServer::Call<&WebServer::Status>);
  Register("/live", &WebServer::Call<&WebServer::Live>);
  Register("/days", &WebServer::Call<&WebServer::Days>);
  Register("/recordings", &WebServer::Call<&WebServer::Recordings>);
  Register("/play", &WebServer::Call<&WebServer::Play>);
  Register("/transport", &WebServer::Call<&WebServer::Transport>);
  RegisterEgiEx(server_, "/auth/record", &WebServer::Call<&WebServer::Record>, this);
  if (StartHttpServer(server_) == 0) {
    DestroyHttpServer(server_);
    throw std::runtime_error("cannot listen on port " + std::to_string(options.port) +
                             ": it is in use, or may not be used; choose another with --port");
  }
}

WebServer::~WebServer() {
  DestroyHttpServer(server_);
}

int WebServer::Page(void* server, HttpRequest* request, const char*) {
  static const std::string page(kPage);
  if (!static_cast<WebServer*>(server)->options_.user.empty()) {
    return RequestWrite(request, page.c_str());
  }
  std::string open = page;
  open.replace(open.find(kLoginMark), sizeof kLoginMark - 1, "");
  return RequestWrite(request, open.c_str());
}

void WebServer::Status(WebRequest& request) {
  ordered_json sites = ordered_json::array();
  for (const auto& site : sites_) {
    sites.push_back(site->StatusJson());
  }
  request.Answer({{"time", std::time(nullptr)}, {"watchers", Watchers()}, {"sites", sites}});
}

// All sites in one answer, as a browser opens few connections. A client that does not keep up
// misses pictures, not their order.
void WebServer::Live(WebRequest& request) {
  const Counted counted(watchers_);
  std::deque<LivePictures::Watch> watches;
  for (const auto& each : sites_) {
    watches.emplace_back(each->Pictures());
  }
  milliseconds silent = kSignOfLife;
  do {
    for (LivePictures::Watch& each : watches) {
      if (const PictureRecord picture = each.Next()) {
        if (!request.Send(*picture)) {
          return;
        }
        silent = milliseconds::zero();
      }
    }
    silent += kPictureTurn;
    if (silent >= kSignOfLife) {
      if (!request.Send("{}\n")) {
        return;
      }
      silent = milliseconds::zero();
    }
  } while (!WaitForStop(kPictureTurn));
  request.EndStream();
}

void WebServer::Days(WebRequest& request) {
  request.Answer(calendar_.Days(request));
}

void WebServer::Recordings(WebRequest& request) {
  request.Answer(calendar_.Recordings(request));
}

void WebServer::Record(WebRequest& request) {
  request.RequirePut();
  const std::int64_t site = request.Number("site", 1, static_cast<std::int64_t>(sites_.size()));
  const bool on = request.Number("on", 0, 1) == 1;
  sites_[static_cast<std::size_t>(site) - 1]->Record(on);
  request.Answer({{"site", site}, {"recording", on}});
}

// The session lives as long as its viewer's connection.
void WebServer::Play(WebRequest& request) {
  const std::int64_t moment = request.Number("at", 1, kLatestTime) * 1000;
  const std::vector<stPBTimeInfo> spans = calendar_.Spans(request);
  if (spans.empty()) {
    throw BadRequest("nothing was recorded then");
  }
  PlaySession session(spans, moment);
  {
    const std::lock_guard lock(sessionsLock_);
    if (sessions_.size() >= kMostSessions) {
      throw std::runtime_error("too many are playing recordings already");
    }
    sessions_.emplace(session.Id(), &session);
  }
  struct Leave {
    WebServer& server;
    PlaySession& session;
    ~Leave() {
      const std::lock_guard lock(server.sessionsLock_);
      server.sessions_.erase(session.Id());
    }
  } const leave{*this, session};
  session.Stream(request);
}

void WebServer::Transport(WebRequest& request) {
  const std::lock_guard lock(sessionsLock_);
  const auto found = sessions_.find(request.Value("session").value_or(""));
  if (found == sessions_.end()) {
    throw BadRequest("there is no such session");
  }
  const std::string_view what = request.Value("do").value_or("");
  // A browser that got no answer asks again; what was done is not done twice.
  if (request.Value("turn") && !found->second->TakeTurn(request.Number("turn", 1, kLatestTime))) {
    request.Answer(found->second->State());
    return;
  }
  if (what == "seek") {
    found->second->Seek(request.Number("at", 1, kLatestTime) * 1000);
  } else if (!found->second->Transport(what)) {
    throw BadRequest("do is pause, resume, forward, backward, faster, slower, or seek with at");
  }
  request.Answer(found->second->State());
}

}  // namespace tools
