#include "cms/streaming/internal/name_lookup.h"

#include <netdb.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "cms/net/internal/socket_address.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/named_thread.h"

namespace cms {
namespace {

std::atomic<Resolver> resolverInUse{nullptr};

// The system's order (RFC 6724) knows which of them can be reached from here.
std::vector<IpAddress> ResolveAll(const std::string& host) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  std::vector<IpAddress> addresses;
  if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0) {
    return addresses;
  }
  for (const addrinfo* each = found; each != nullptr; each = each->ai_next) {
    SocketAddress address;
    std::memcpy(&address.storage, each->ai_addr,
                std::min<std::size_t>(each->ai_addrlen, sizeof address.storage));
    if (const IpAddress ip = address.Address();
        ip && std::find(addresses.begin(), addresses.end(), ip) == addresses.end()) {
      addresses.push_back(ip);
    }
  }
  freeaddrinfo(found);
  return addresses;
}

// The questions to the resolver that are open, and those who wait for their answers.
class Questions {
 public:
  struct Question {
    bool answered = false;
    std::vector<IpAddress> addresses;
    std::vector<std::shared_ptr<WakeUp>> waiting;
  };

  // Never destroyed: a thread that was left behind may outlive static objects.
  static Questions& Instance() {
    static auto* const questions = new Questions;
    return *questions;
  }

  // The question to which `answered` is signalled; nullptr when no thread could be had for it.
  std::shared_ptr<Question> Join(const std::string& host, const std::shared_ptr<WakeUp>& answered) {
    ScopeLock lock(lock_);
    auto& question = open_[host];
    if (question == nullptr) {
      question = std::make_shared<Question>();
      if (!NamedThread::StartDetached("cms-lookup",
                                      [this, host, asked = question] { Ask(host, *asked); })) {
        open_.erase(host);
        return nullptr;
      }
    }
    question->waiting.push_back(answered);
    return question;
  }

  // Nothing while it has none.
  std::optional<NameLookup> AnswerTo(const Question& question) {
    ScopeLock lock(lock_);
    if (!question.answered) {
      return std::nullopt;
    }
    return NameLookup{
        question.addresses.empty() ? NameLookup::Outcome::kNoAddress : NameLookup::Outcome::kFound,
        question.addresses};
  }

 private:
  void Ask(const std::string& host, Question& question) {
    const Resolver resolver = resolverInUse.load();
    auto addresses = resolver != nullptr ? resolver(host) : ResolveAll(host);
    ScopeLock lock(lock_);
    question.answered = true;
    question.addresses = std::move(addresses);
    for (const auto& waiting : question.waiting) {
      waiting->Signal();
    }
    open_.erase(host);
  }

  CMSCritical lock_;  // of the questions' fields, too
  std::map<std::string, std::shared_ptr<Question>> open_ CMS_GUARDED_BY(lock_);
};

bool IsReadable(const pollfd& entry) {
  return (entry.revents & POLLIN) != 0;
}

}  // namespace

NameLookup LookUpHost(const std::string& host, int limitMs, const WakeUp& cancel) {
  using Outcome = NameLookup::Outcome;
  if (const auto address = IpAddress::Parse(host)) {
    return {Outcome::kFound, {*address}};
  }
  const auto answered = std::make_shared<WakeUp>();
  const auto question = Questions::Instance().Join(host, answered);
  if (question == nullptr) {
    return {Outcome::kNoThread, {}};
  }
  const std::uint64_t end = TickMilliseconds() + static_cast<std::uint64_t>(limitMs);
  while (true) {
    pollfd entries[] = {{answered->Descriptor(), POLLIN, 0}, {cancel.Descriptor(), POLLIN, 0}};
    const std::uint64_t now = TickMilliseconds();
    poll(entries, 2, now < end ? static_cast<int>(end - now) : 0);
    if (IsReadable(entries[1])) {
      return {Outcome::kCancelled, {}};
    }
    if (const auto answer = Questions::Instance().AnswerTo(*question)) {
      return *answer;
    }
    if (now >= end) {
      return {Outcome::kTimeout, {}};
    }
  }
}

void SetResolver(Resolver resolver) {
  resolverInUse.store(resolver);
}

}  // namespace cms
