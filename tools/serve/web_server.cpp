#include "tools/serve/web_server.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <deque>
#include <stdexcept>

#include "tools/serve/page.h"
#include "tools/stop_signal.h"

namespace tools {
namespace {

using nlohmann::ordered_json;
using std::chrono::milliseconds;

WebServer* current = nullptr;

// How often is looked for new pictures while somebody watches.
constexpr milliseconds kPictureTurn{40};
// Something is sent so often at least, so that a client that went is noticed.
constexpr milliseconds kSignOfLife{2000};

constexpr char kLoginMark[] = "data-login=\"\"";

}  // namespace

template <WebServer::Handler handler>
int WebServer::Call(HttpRequest* request, const char*, std::uint32_t) {
  WebRequest web(request);
  try {
    (current->*handler)(web);
  } catch (const BadRequest& error) {
    web.Refuse(kHttpBadRequest, error.what());
  } catch (const std::exception& error) {
    web.Refuse(kHttpServiceUnavailable, error.what());
  }
  return 0;
}

int WebServer::Password(const std::string& user, std::string& password) {
  password = current->options_.password;
  return !current->options_.user.empty() && user == current->options_.user ? 1 : 0;
}

// Everything but the page itself is behind Digest where there is somebody who can log in.
void WebServer::Register(const std::string& name, EgiCallback callback) {
  RegisterEgi(server_, ("/auth" + name).c_str(), callback);
  if (options_.user.empty()) {
    RegisterEgi(server_, name.c_str(), callback);
  }
}

WebServer::WebServer(const WebServerOptions& options, std::vector<std::unique_ptr<LiveSite>>& sites)
    : options_(options), sites_(sites) {
  for (std::size_t i = 0; i < sites.size(); ++i) {
    pictures_.push_back(std::make_unique<LivePictures>(*sites[i], static_cast<int>(i)));
  }
  const tHttpServerConfig config{options.port, &WebServer::Password};
  server_ = CreateHttpServer(&config);
  if (server_ == nullptr) {
    throw std::runtime_error("out of memory");
  }
  current = this;
  EnableFirstLineTarget(server_, 1);
  EnableWhiteBlackList(server_, options.access.empty() ? 0 : 1);
  for (const AccessRange& range : options.access) {
    SetWhiteBlackListInfo(server_, range.low, range.high, range.kind, kAccessListAdd);
  }
  RegisterEgi(server_, "/", &WebServer::Page);
  Register("/status", &WebServer::Call<&WebServer::Status>);
  Register("/live", &WebServer::Call<&WebServer::Live>);
  Register("/days", &WebServer::Call<&WebServer::Days>);
  Register("/recordings", &WebServer::Call<&WebServer::Recordings>);
  if (StartHttpServer(server_) == 0) {
    DestroyHttpServer(server_);
    throw std::runtime_error("cannot listen on port " + std::to_string(options.port) +
                             ": it is in use, or may not be used; choose another with --port");
  }
}

WebServer::~WebServer() {
  DestroyHttpServer(server_);
  current = nullptr;
}

int WebServer::Page(HttpRequest* request, const char*, std::uint32_t) {
  static const std::string page(kPage);
  if (!current->options_.user.empty()) {
    return RequestWrite(request, page.c_str());
  }
  std::string open = page;
  open.replace(open.find(kLoginMark), sizeof kLoginMark - 1, "");
  return RequestWrite(request, open.c_str());
}

void WebServer::Status(WebRequest& request) {
  ordered_json sites = ordered_json::array();
  for (std::size_t i = 0; i < sites_.size(); ++i) {
    ordered_json one{{"site", i}};
    one.update(sites_[i]->StatusJson());
    sites.push_back(one);
  }
  request.Answer({{"time", std::time(nullptr)}, {"watchers", Watchers()}, {"sites", sites}});
}

// All sites in one answer, as a browser opens few connections. A client that does not keep up
// misses pictures, not their order.
void WebServer::Live(WebRequest& request) {
  struct Count {
    std::atomic<int>& watchers;
    explicit Count(std::atomic<int>& counter) : watchers(counter) { ++watchers; }
    ~Count() { --watchers; }
  } const count(watchers_);
  std::deque<LivePictures::Watch> watches;
  for (const auto& each : pictures_) {
    watches.emplace_back(*each);
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

}  // namespace tools
