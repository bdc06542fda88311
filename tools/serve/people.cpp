#include "tools/serve/people.h"

#include <arpa/inet.h>

#include <string_view>

#include "cms/runtime/log.h"
#include "tools/serve/form_text.h"

namespace tools {
namespace {

constexpr std::uint32_t kTooManyRequests = 429;
constexpr std::uint32_t kLongestForm = 4096;
constexpr std::string_view kMessageMark = "<!-- message -->";

constexpr char kDone[] = "done";
constexpr char kWrongLogin[] = "wrong user name or password";
constexpr char kCookieRules[] = "; Path=/; HttpOnly; SameSite=Strict";

// Texts of this file alone go into it.
void AnswerForm(WebRequest& request, std::string page, std::string_view message) {
  page.replace(page.find(kMessageMark), kMessageMark.size(), message);
  request.AnswerText("text/html; charset=utf-8", page);
}

}  // namespace

// Browsers keep cookies by host, whatever the port.
std::string People::CookieName(const WebRequest& request) const {
  return (secure_ ? "__Host-orvanta-" : "orvanta-") + std::to_string(request.Port());
}

void People::NoteLogin(const std::string& user, const std::string& from, const char* did,
                       const std::string& result) {
  audit_.Write({{"user", user}, {"from", from}, {"did", did}, {"result", result}});
  if (result != kDone) {
    cms::Log(cms::LogLevel::kWarning, "page",
             "a login as \"" + user + "\" from " + from + " was refused: " + result);
  }
}

void People::Guard(HttpServer* server) {
  SetHttpLoginGuard(server, &People::OnDigest, this);
}

int People::OnDigest(void* people, HttpRequest* request, const std::string& user,
                     cms::HttpLoginStep step) {
  auto& own = *static_cast<People*>(people);
  const std::uint32_t address = ntohl(GetClientAddress(request));
  switch (step) {
    case cms::HttpLoginStep::kGood:
      own.limits_.Good(address, user);
      break;
    case cms::HttpLoginStep::kWrong:
      own.limits_.Wrong(address, user);
      own.NoteLogin(user, WebRequest(request).From(), "login", kWrongLogin);
      break;
    case cms::HttpLoginStep::kAsked: {
      const auto pause = own.limits_.Pause(address, user);
      if (pause.count() > 0) {
        RequestAddHeader(request, "Retry-After", std::to_string(pause.count()).c_str());
        return 0;
      }
      break;
    }
  }
  return 1;
}

std::optional<Visitor> People::WhoAsks(const WebRequest& request, bool byDigest) {
  if (!users_) {
    return byDigest ? std::nullopt : std::optional(Visitor{"", Role::kPlay, "", ""});
  }
  Visitor visitor;
  if (byDigest) {
    visitor.user = request.User();
  } else {
    const std::string cookies = request.Header("Cookie");
    const auto id = CookieOf(cookies, CookieName(request));
    const auto session = id ? sessions_.Use(std::string(*id)) : std::nullopt;
    if (!session) {
      return std::nullopt;
    }
    visitor = {session->user, Role::kNobody, std::string(*id), session->password};
  }
  const auto user = users_->Find(visitor.user);
  if (!user || (!byDigest && user->password != visitor.password)) {
    sessions_.End(visitor.session);
    return std::nullopt;
  }
  visitor.role = user->role;
  visitor.password = user->password;
  return visitor;
}

bool People::IsStill(const Visitor& visitor) {
  if (!users_) {
    return true;
  }
  const auto user = users_->Find(visitor.user);
  return user && user->password == visitor.password && user->role >= visitor.role &&
         (visitor.session.empty() || sessions_.Use(visitor.session));
}

People::Tried People::Try(const WebRequest& request, const std::string& user,
                          const std::string& password, std::chrono::seconds* pause) {
  const std::uint32_t address = request.Address();
  *pause = limits_.Pause(address, user);
  if (pause->count() > 0) {
    return Tried::kWait;
  }
  const ScopeLock lock(oneByOne_);
  *pause = limits_.Pause(address, user);  // others may have guessed meanwhile
  if (pause->count() > 0) {
    return Tried::kWait;
  }
  if (!users_->IsRight(user, password)) {
    limits_.Wrong(address, user);
    return Tried::kWrong;
  }
  limits_.Good(address, user);
  return Tried::kGood;
}

void People::AnswerLogin(WebRequest& request, const std::string& page) {
  if (!users_) {
    request.Redirect("./");
    return;
  }
  if (request.Method() != "POST") {
    AnswerForm(request, page, "");
    return;
  }
  request.RequireOwnPage();
  const auto form = request.Body(kLongestForm);
  const auto user = FieldOf(form, "user");
  const auto password = FieldOf(form, "password");
  if (!user || !password) {
    throw BadRequest("user and password are missing");
  }
  std::chrono::seconds pause{0};
  switch (Try(request, *user, *password, &pause)) {
    case Tried::kGood:
      break;
    case Tried::kWrong:
      NoteLogin(*user, request.From(), "login", kWrongLogin);
      request.SetStatus(cms::kHttpForbidden);
      AnswerForm(request, page, "Wrong user name or password.");
      return;
    case Tried::kWait:
      request.SetStatus(kTooManyRequests);
      request.AddHeader("Retry-After", std::to_string(pause.count()));
      AnswerForm(request, page,
                 "Too many wrong passwords: try again in " + std::to_string(pause.count()) + " s.");
      return;
  }
  NoteLogin(*user, request.From(), "login", kDone);
  const auto kept = users_->Find(*user);
  request.AddHeader("Set-Cookie", CookieName(request) + "=" +
                                      sessions_.Begin(*user, kept ? kept->password : "") +
                                      kCookieRules + (secure_ ? "; Secure" : ""));
  request.Redirect("./");
}

void People::AnswerLogout(WebRequest& request) {
  request.RequireOwnPage();
  if (const auto visitor = WhoAsks(request, false)) {
    sessions_.End(visitor->session);
    NoteLogin(visitor->user, request.From(), "logout", kDone);
  }
  request.AddHeader("Set-Cookie", CookieName(request) + "=; Max-Age=0" + kCookieRules +
                                      (secure_ ? "; Secure" : ""));
  request.Redirect("login");
}

}  // namespace tools
