#include "tools/serve/web_server.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <stdexcept>
#include <string_view>
#include <utility>

#include "cms/recording/data_root.h"
#include "cms/recording/keep/protect_recordings.h"
#include "cms/runtime/log.h"
#include "tools/serve/page_files.h"
#include "tools/service/metrics.h"

namespace tools {
namespace {

using nlohmann::ordered_json;

// Each decodes on threads of its own.
constexpr std::size_t kMostSessions = 16;

constexpr std::string_view kVisitorMark = "data-user=\"\" data-role=\"\" data-recorder=\"\"";
constexpr std::size_t kAuditLines = 500;

// Everything comes from here; pictures and streams are made by the page itself.
constexpr char kPolicy[] =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' blob: data:; "
    "media-src 'self' blob:; connect-src 'self'; base-uri 'none'; form-action 'self'; "
    "frame-ancestors 'none'";

std::string DataRootOfProcess() {
  const std::string root = cms::GetDataRoot();
  return root.empty() ? std::filesystem::current_path().parent_path().string() : root;
}

const char* TypeOf(std::string_view name) {
  return name.ends_with(".js") ? "text/javascript; charset=utf-8" : "text/css; charset=utf-8";
}

std::string HtmlText(const std::string& text) {
  std::string html;
  for (const char c : text) {
    switch (c) {
      case '&':
        html += "&amp;";
        break;
      case '<':
        html += "&lt;";
        break;
      case '"':
        html += "&quot;";
        break;
      default:
        html += c;
    }
  }
  return html;
}

}  // namespace

const std::array<WebServer::Route, WebServer::kRouteCount> WebServer::kRoutes = {{
    {"/status", Role::kWatch, false, &WebServer::Status},
    {"/metrics", Role::kWatch, false, &WebServer::Metrics},
    {"/storage", Role::kWatch, false, &WebServer::Storage},
    {"/live", Role::kWatch, false, &WebServer::Live},
    {"/video", Role::kWatch, false, &WebServer::Video},
    {"/sound", Role::kWatch, false, &WebServer::Sound},
    {"/days", Role::kPlay, false, &WebServer::Days},
    {"/recordings", Role::kPlay, false, &WebServer::Recordings},
    {"/play", Role::kPlay, false, &WebServer::Play},
    {"/transport", Role::kPlay, false, &WebServer::Transport},
    {"/stretch", Role::kPlay, false, &WebServer::Stretch},
    {"/thumbnail", Role::kPlay, false, &WebServer::Thumbnail},
    {"/export", Role::kPlay, true, &WebServer::Export},
    {"/clip", Role::kPlay, true, &WebServer::Clip},
    {"/keep", Role::kOperate, true, &WebServer::Keep},
    {"/ptz", Role::kOperate, true, &WebServer::Ptz},
    {"/record", Role::kOperate, true, &WebServer::Record},
    {"/sites", Role::kManage, true, &WebServer::Sites},
    {"/try", Role::kManage, true, &WebServer::Try},
    {"/audit", Role::kManage, false, &WebServer::AuditLines},
}};

int WebServer::Enter(void* entrance, HttpRequest* request, const char*) {
  WebRequest web(request);
  const auto& at = *static_cast<const Entrance*>(entrance);
  at.server->Answer(web, at);
  return 0;
}

void WebServer::Answer(WebRequest& request, const Entrance& entrance) {
  const Route& route = *entrance.route;
  Visitor visitor;
  try {
    if (!people_.Any()) {
      request.RequireHost(options_.names);
    }
    const auto who = people_.WhoAsks(request, entrance.byDigest);
    if (!who) {
      // Not 401: browsers would ask for a password in a window of their own.
      request.SetStatus(cms::kHttpForbidden);
      request.Answer({{"error", "log in first"}, {"login", true}});
      return;
    }
    visitor = *who;
    AnswerVisitor(request, route, visitor);
  } catch (const BadRequest& error) {
    request.Refuse(cms::kHttpBadRequest, error.what());
  } catch (const std::exception& error) {
    request.Refuse(cms::kHttpServiceUnavailable, error.what());
  }
  Note(request, route, visitor);
}

void WebServer::AnswerVisitor(WebRequest& request, const Route& route, const Visitor& visitor) {
  if (visitor.role < route.role) {
    request.Refuse(cms::kHttpForbidden,
                   (visitor.user.empty() ? "nobody logs in here: this needs somebody"
                                         : "\"" + visitor.user + "\" has the role \"" +
                                               WordOf(visitor.role) + "\": this needs somebody") +
                       std::string(" with the role \"") + WordOf(route.role) + "\"");
    return;
  }
  if (!request.IsGet()) {
    request.RequireOwnPage();
  }
  request.StreamWhile([this, &visitor] { return people_.IsStill(visitor); });
  (this->*route.handler)(request);
}

void WebServer::Note(const WebRequest& request, const Route& route, const Visitor& visitor) {
  const bool changesNothing = request.IsGet() && route.handler != &WebServer::Clip;
  if (!route.noted || changesNothing) {
    return;
  }
  // A camera is told again and again while it moves, and at last to stop.
  const std::string query(request.Query());
  if (route.handler == &WebServer::Ptz && request.Problem().empty() &&
      (query.find("pan=0&tilt=0&zoom=0") != std::string::npos ||
       !moves_.IsOne(visitor.user + " " + std::string(request.Value("site").value_or(""))))) {
    return;
  }
  audit_.Write({{"user", visitor.user},
                {"from", request.From()},
                {"did", route.path + 1},
                {"what", query},
                {"result", request.Problem().empty() ? "done" : request.Problem()}});
}

template <void (WebServer::*show)(WebRequest&)>
int WebServer::Show(void* server, HttpRequest* request, const char*) {
  WebRequest web(request);
  web.AddHeader("Content-Security-Policy", kPolicy);
  web.AddHeader("X-Content-Type-Options", "nosniff");
  web.AddHeader("Referrer-Policy", "same-origin");
  web.AddHeader("Cache-Control", "no-store");
  try {
    (static_cast<WebServer*>(server)->*show)(web);
  } catch (const std::exception& error) {
    web.Refuse(cms::kHttpBadRequest, error.what());
  }
  return 0;
}

// The page of who asks for it: its scripts offer what that one may do.
void WebServer::Index(WebRequest& request) {
  const auto visitor = people_.WhoAsks(request, false);
  if (!visitor) {
    request.Redirect("login");
    return;
  }
  std::string text = indexPage_;
  text.replace(text.find(kVisitorMark), kVisitorMark.size(),
               "data-user=\"" + HtmlText(visitor->user) + "\" data-role=\"" +
                   WordOf(visitor->role) + "\" data-recorder=\"" +
                   (options_.recorder.empty() ? "" : "yes") + "\"");
  request.AnswerText("text/html; charset=utf-8", text);
}

void WebServer::AuditLines(WebRequest& request) {
  request.Answer({{"kept", audit_.IsKept()}, {"lines", audit_.Latest(kAuditLines)}});
}

int WebServer::Password(void* server, const std::string& user, std::string& password) {
  password = static_cast<WebServer*>(server)->people_.DigestPassword(user);
  return password.empty() ? 0 : 1;
}

WebServer::WebServer(const WebServerOptions& options, SiteList sites)
    : options_(options),
      sites_(std::move(sites)),
      audit_(options.audit),
      people_(options.users, options.sessions, IsSecure(), audit_),
      root_(DataRootOfProcess()) {
  const cms::tHttpServerConfigEx config{options.port, &WebServer::Password, this, options.address};
  server_ = CreateHttpServerEx(&config);
  if (server_ == nullptr) {
    throw std::runtime_error("out of memory");
  }
  EnableWholeRequests(server_, 1);
  EnableStrictDigest(server_, 1);
  std::string problem;
  if (IsSecure() &&
      SetHttpServerTls(server_, options.certificateFile, options.keyFile, "", problem) == 0) {
    DestroyHttpServer(server_);
    throw std::runtime_error("no TLS: " + problem);
  }
  EnableWhiteBlackList(server_, options.access.empty() ? 0 : 1);
  for (const AccessRange& range : options.access) {
    SetWhiteBlackListInfo(server_, range.low, range.high, range.kind, cms::kAccessListAdd);
  }
  people_.Guard(server_);
  RegisterPage();
  for (const Route& route : kRoutes) {
    for (const bool byDigest : {false, true}) {
      const std::string path = (byDigest ? "/auth" : "") + std::string(route.path);
      RegisterEgiEx(server_, path.c_str(), &WebServer::Enter,
                    &entrances_.emplace_back(Entrance{this, &route, byDigest}));
    }
  }
  if (StartHttpServer(server_) == 0) {
    DestroyHttpServer(server_);
    throw std::runtime_error("cannot listen on port " + std::to_string(options.port) +
                             ": it is in use, or may not be used; choose another with --port");
  }
}

WebServer::~WebServer() {
  DestroyHttpServer(server_);
}

// Scripts and styles hold nothing secret: all that there is to see is asked for by them.
void WebServer::RegisterPage() {
  for (const PageFile& file : PageFiles()) {
    if (file.name.ends_with(".html")) {
      (file.name == "login.html" ? loginPage_ : indexPage_) = file.text;
      continue;
    }
    PageAnswer& answer = page_.emplace_back();
    answer.text = file.text;
    answer.type = TypeOf(file.name);
    const auto give = [](void* context, HttpRequest* request, const char*) {
      const auto& given = *static_cast<const PageAnswer*>(context);
      RequestSetContentType(request, given.type);
      RequestAddHeader(request, "X-Content-Type-Options", "nosniff");
      return RequestWrite(request, given.text.c_str());
    };
    RegisterEgiEx(server_, ("/page/" + std::string(file.name)).c_str(), give, &answer);
  }
  RegisterEgiEx(server_, "/", &WebServer::Show<&WebServer::Index>, this);
  RegisterEgiEx(server_, "/login", &WebServer::Show<&WebServer::Login>, this);
  RegisterEgiEx(server_, "/logout", &WebServer::Show<&WebServer::Logout>, this);
}

void WebServer::Status(WebRequest& request) {
  ordered_json sites = ordered_json::array();
  for (const auto& site : sites_()) {
    sites.push_back(site->StatusJson());
  }
  request.Answer({{"time", std::time(nullptr)}, {"watchers", Watchers()}, {"sites", sites}});
}

RecorderFigures WebServer::OwnFigures() const {
  RecorderFigures figures;
  figures.version = ProgramVersion();
  figures.now = std::time(nullptr);
  figures.startedAt = startedAt_;
  figures.droppedLogLines = cms::DroppedLogLines();
  figures.process = FiguresOfThisProcess();
  for (const auto& site : sites_()) {
    figures.sites.push_back(site->Figures());
  }
  return figures;
}

void WebServer::Metrics(WebRequest& request) {
  RecorderFigures figures = options_.figures ? options_.figures() : OwnFigures();
  figures.watchers = Watchers();
  request.AnswerText(kMetricsType, MetricsText(figures));
}

void WebServer::Days(WebRequest& request) {
  request.Answer(calendar_.Days(request));
}

void WebServer::Recordings(WebRequest& request) {
  request.Answer(calendar_.Recordings(request));
}

// The one that "site" in the query names.
std::shared_ptr<ServeSite> WebServer::SiteOf(const WebRequest& request) const {
  const std::int64_t site = request.Number("site", 1, INT32_MAX);
  const auto sites = sites_();
  const auto found = std::find_if(sites.begin(), sites.end(),
                                  [site](const auto& each) { return each->Number() == site; });
  if (found == sites.end()) {
    throw BadRequest("there is no site " + std::to_string(site));
  }
  return *found;
}

void WebServer::Record(WebRequest& request) {
  request.RequirePut();
  const auto site = SiteOf(request);
  const bool on = request.Number("on", 0, 1) == 1;
  site->Record(on);
  request.Answer({{"site", site->Number()}, {"recording", on}});
}

// Asked without a change: what the camera can do, and its presets.
void WebServer::Ptz(WebRequest& request) {
  constexpr int kPercent = 100;
  const auto site = SiteOf(request);
  if (site->Mover() == nullptr) {
    throw BadRequest("site " + std::to_string(site->Number()) +
                     " cannot be moved: its camera is not known by an onvif:// address");
  }
  CameraMover& mover = *site->Mover();
  if (request.IsGet()) {
    const CameraMover::Abilities abilities = mover.Read();
    ordered_json presets = ordered_json::array();
    for (const cms::PtzPreset& preset : abilities.presets) {
      presets.push_back(preset.name.empty() ? preset.token : preset.name);
    }
    request.Answer({{"site", site->Number()},
                    {"pan_tilt", abilities.panTilt},
                    {"zoom", abilities.zoom},
                    {"home", abilities.home},
                    {"presets", presets}});
    return;
  }
  request.RequirePut();
  std::string problem;
  if (request.Value("home")) {
    mover.GoHome();
  } else if (request.Value("preset")) {
    const auto presets = mover.Read().presets;
    const auto place = static_cast<std::size_t>(request.Number("preset", 1, INT32_MAX)) - 1;
    if (place >= presets.size()) {
      throw BadRequest("the camera has no such preset any more");
    }
    mover.GoTo(presets[place].token);
  } else {
    const auto part = [&](const char* name) {
      return static_cast<double>(request.Number(name, -kPercent, kPercent)) / kPercent;
    };
    problem = mover.Move({part("pan"), part("tilt"), part("zoom")});
  }
  request.Answer({{"site", site->Number()}, {"problem", problem}});
}

void WebServer::Keep(WebRequest& request) {
  request.RequirePut();
  cms::SiteSpan span;
  span.site = static_cast<std::uint32_t>(request.Number("site", 1, INT32_MAX));
  span.from = request.Number("from", 1, kLatestTime);
  span.to = request.Number("to", span.from, kLatestTime);
  const bool on = request.Number("on", 0, 1) == 1;
  for (const std::string& root : roots_()) {  // the site may go on on another one
    const std::string error =
        on ? cms::ProtectRecordings(root, span) : cms::ReleaseRecordings(root, span);
    if (!error.empty()) {
      throw std::runtime_error(error);
    }
  }
  request.Answer({{"site", span.site}, {"from", span.from}, {"to", span.to}, {"kept", on}});
}

namespace {

constexpr std::int64_t kMsInASecond = 1000;

// "at" in seconds, or "ms" in milliseconds.
std::int64_t MomentOf(const WebRequest& request) {
  return request.Value("ms") ? request.Number("ms", 1, kLatestTime * kMsInASecond)
                             : request.Number("at", 1, kLatestTime) * kMsInASecond;
}

}  // namespace

// The session lives as long as its viewer's connection.
void WebServer::Play(WebRequest& request) {
  const std::int64_t moment = MomentOf(request);
  const std::int64_t speed =
      request.Value("speed")
          ? request.Number("speed", -PlaySession::kFastest, PlaySession::kFastest)
          : 1;
  const std::vector<stPBTimeInfo> spans = calendar_.Spans(request);
  if (spans.empty()) {
    throw BadRequest("nothing was recorded then");
  }
  PlaySession session(spans, moment, static_cast<int>(speed));
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
    found->second->Seek(MomentOf(request));
  } else if (!found->second->Transport(what)) {
    throw BadRequest("do is pause, resume, forward, backward, faster, slower, or seek with at");
  }
  request.Answer(found->second->State());
}

}  // namespace tools
