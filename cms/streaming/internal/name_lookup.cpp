#include "cms/streaming/internal/name_lookup.h"

#include <poll.h>

#include <atomic>
#include <map>
#include <memory>
#include <vector>

#include "cms/runtime/clock.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/streaming/rtsp_url.h"

namespace cms {
namespace {

std::atomic<Resolver> resolver_in_use{nullptr};

// The questions to the resolver that are open, and those who wait for their answers.
class Questions {
 public:
  struct Question {
    bool answered = false;
    std::optional<std::uint32_t> address;
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
    return question.address ? NameLookup{NameLookup::Outcome::kFound, *question.address}
                            : NameLookup{NameLookup::Outcome::kNoAddress, 0};
  }

 private:
  void Ask(const std::string& host, Question& question) {
    const Resolver resolver = resolver_in_use.load();
    const auto address = resolver != nullptr ? resolver(host) : ResolveIPv4(host);
    ScopeLock lock(lock_);
    question.answered = true;
    question.address = address;
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

NameLookup LookUpIPv4(const std::string& host, int limitMs, const WakeUp& cancel) {
  using Outcome = NameLookup::Outcome;
  if (const auto dotted = ParseIPv4(host)) {
    return {Outcome::kFound, *dotted};
  }
  const auto answered = std::make_shared<WakeUp>();
  const auto question = Questions::Instance().Join(host, answered);
  if (question == nullptr) {
    return {Outcome::kNoThread, 0};
  }
  const std::uint64_t end = TickMilliseconds() + static_cast<std::uint64_t>(limitMs);
  while (true) {
    pollfd entries[] = {{answered->Descriptor(), POLLIN, 0}, {cancel.Descriptor(), POLLIN, 0}};
    const std::uint64_t now = TickMilliseconds();
    poll(entries, 2, now < end ? static_cast<int>(end - now) : 0);
    if (IsReadable(entries[1])) {
      return {Outcome::kCancelled, 0};
    }
    if (const auto answer = Questions::Instance().AnswerTo(*question)) {
      return *answer;
    }
    if (now >= end) {
      return {Outcome::kTimeout, 0};
    }
  }
}

void SetResolver(Resolver resolver) {
  resolver_in_use.store(resolver);
}

}  // namespace cms
