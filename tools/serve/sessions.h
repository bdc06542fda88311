// Who is logged in to the page in a browser.
#pragma once

#include <chrono>
#include <map>
#include <optional>
#include <string>

#include "cms/runtime/critical.h"

namespace tools {

struct SessionLimits {
  std::chrono::seconds idle =
      std::chrono::minutes(30);  // without a request, or an answer that lasts
  std::chrono::seconds whole = std::chrono::hours(24 * 7);
};

// Any thread. Nothing of it is stored: a server that is started anew knows nobody.
class Sessions {
 public:
  explicit Sessions(SessionLimits limits) : limits_(limits) {}

  // The name that the browser shows from now on. A user has 16 at most, everybody together 1,024:
  // the one that was used least recently ends.
  std::string Begin(const std::string& user, const std::string& password);
  struct Session {
    std::string user;
    std::string password;  // what was kept of it then: another one ends the session
  };
  // Whose it is, and that it is still used.
  std::optional<Session> Use(const std::string& id);
  void End(const std::string& id);

 private:
  using Clock = std::chrono::steady_clock;
  struct Entry {
    Session session;
    Clock::time_point begun;
    Clock::time_point used;
  };
  using Entries = std::map<std::string, Entry, std::less<>>;
  void Forget() CMS_REQUIRES(lock_);
  void MakeRoom(const std::string* user, std::size_t most) CMS_REQUIRES(lock_);

  const SessionLimits limits_;
  CMSCritical lock_;
  Entries entries_ CMS_GUARDED_BY(lock_);
};

}  // namespace tools
