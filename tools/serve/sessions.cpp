#include "tools/serve/sessions.h"

#include "tools/serve/random_id.h"

namespace tools {
namespace {

constexpr std::size_t kMostOfOneUser = 16;
constexpr std::size_t kMostOfAll = 1024;

}  // namespace

void Sessions::Forget() {
  const auto now = Clock::now();
  std::erase_if(entries_, [&](const auto& each) {
    return now - each.second.used > limits_.idle || now - each.second.begun > limits_.whole;
  });
}

// Ends those used least recently, of one user or of all, until fewer than `most` are left.
void Sessions::MakeRoom(const std::string* user, std::size_t most) {
  while (true) {
    std::size_t count = 0;
    auto oldest = entries_.end();
    for (auto each = entries_.begin(); each != entries_.end(); ++each) {
      if (user == nullptr || each->second.session.user == *user) {
        ++count;
        if (oldest == entries_.end() || each->second.used < oldest->second.used) {
          oldest = each;
        }
      }
    }
    if (count < most) {
      return;
    }
    entries_.erase(oldest);
  }
}

std::string Sessions::Begin(const std::string& user, const std::string& password) {
  const auto now = Clock::now();
  std::string id = RandomId();
  const ScopeLock lock(lock_);
  Forget();
  MakeRoom(&user, kMostOfOneUser);
  MakeRoom(nullptr, kMostOfAll);
  entries_.emplace(id, Entry{{user, password}, now, now});
  return id;
}

std::optional<Sessions::Session> Sessions::Use(const std::string& id) {
  const ScopeLock lock(lock_);
  Forget();
  const auto found = entries_.find(id);
  if (found == entries_.end()) {
    return std::nullopt;
  }
  found->second.used = Clock::now();
  return found->second.session;
}

void Sessions::End(const std::string& id) {
  const ScopeLock lock(lock_);
  entries_.erase(id);
}

}  // namespace tools
