// Who is at the page, and what they may do: logging in and out, and what every request is asked.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "cms/exports/http_server_exports.h"
#include "cms/runtime/critical.h"
#include "tools/serve/audit.h"
#include "tools/serve/login_limits.h"
#include "tools/serve/sessions.h"
#include "tools/serve/users.h"
#include "tools/serve/web_request.h"

namespace tools {

// Who asks: by the cookie of a session, by Digest, or nobody in particular.
struct Visitor {
  std::string user;  // empty: nobody logs in here
  Role role = Role::kNobody;
  std::string session;
  std::string password;  // what is kept of it
};

// Any thread. Passwords are looked at one after the other.
class People {
 public:
  // Without users everybody who is let in plays, and nobody may do more.
  // `secure`: browsers come by TLS. Who comes and goes is told to `audit`, which has to live
  // longer.
  People(std::shared_ptr<Users> users, SessionLimits limits, bool secure, Audit& audit)
      : users_(std::move(users)), secure_(secure), sessions_(limits), audit_(audit) {}

  // Digest logins go by the limits too. Before the server is started.
  void Guard(HttpServer* server);

  bool Any() const { return users_ != nullptr; }  // whether somebody can log in
  // Nothing of who has not logged in. `byDigest`: the server has proven the name.
  std::optional<Visitor> WhoAsks(const WebRequest& request, bool byDigest);
  // Whether a visitor still is who he was: his session lasts, his password is the same.
  bool IsStill(const Visitor& visitor);
  // For the server, which proves Digest logins with it; empty: there is none.
  std::string DigestPassword(const std::string& user) {
    return users_ ? users_->DigestPassword(user) : "";
  }

  // The form, and what it was filled in with; `page` is its text with a mark for a message.
  void AnswerLogin(WebRequest& request, const std::string& page);
  void AnswerLogout(WebRequest& request);

 private:
  enum class Tried { kGood, kWrong, kWait };
  Tried Try(const WebRequest& request, const std::string& user, const std::string& password,
            std::chrono::seconds* pause);
  static int OnDigest(void* people, HttpRequest* request, const std::string& user,
                      cms::HttpLoginStep step);
  void NoteLogin(const std::string& user, const std::string& from, const char* did,
                 const std::string& result);
  std::string CookieName(const WebRequest& request) const;

  const std::shared_ptr<Users> users_;
  const bool secure_;
  Sessions sessions_;
  Audit& audit_;
  LoginLimits limits_;
  CMSCritical oneByOne_;  // outside all others: a password is looked at under it
};

}  // namespace tools
