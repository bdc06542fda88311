#include "cms/streaming/internal/name_lookup.h"

#include <poll.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "cms/runtime/clock.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/streaming/rtsp_url.h"

namespace cms {
namespace {

// One question to the resolver and those who wait for its answer.
struct Question {
  bool answered = false;
  std::optional<std::uint32_t> address;
  std::vector<std::shared_ptr<WakeUp>> waiting;
};

struct Questions {
  std::mutex mutex;  // guards the map and what it points to
  std::map<std::string, std::shared_ptr<Question>> open;
};

// Never destroyed: a thread that was left behind may outlive static objects.
Questions& TheQuestions() {
  static auto* const questions = new Questions;
  return *questions;
}

std::atomic<Resolver> resolver_in_use{nullptr};

void Ask(const std::string& host, const std::shared_ptr<Question>& question) {
  const Resolver resolver = resolver_in_use.load();
  const auto address = resolver != nullptr ? resolver(host) : ResolveIPv4(host);
  Questions& questions = TheQuestions();
  std::lock_guard lock(questions.mutex);
  question->answered = true;
  question->address = address;
  for (const auto& waiting : question->waiting) {
    waiting->Signal();
  }
  questions.open.erase(host);
}

// The question to which `answered` is signalled; nullptr when no thread could be had for it.
std::shared_ptr<Question> Join(const std::string& host, const std::shared_ptr<WakeUp>& answered) {
  Questions& questions = TheQuestions();
  std::lock_guard lock(questions.mutex);
  auto& question = questions.open[host];
  if (question == nullptr) {
    question = std::make_shared<Question>();
    if (!NamedThread::StartDetached("cms-lookup", [host, asked = question] { Ask(host, asked); })) {
      questions.open.erase(host);
      return nullptr;
    }
  }
  question->waiting.push_back(answered);
  return question;
}

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
  const auto question = Join(host, answered);
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
    std::lock_guard lock(TheQuestions().mutex);
    if (question->answered) {
      return question->address ? NameLookup{Outcome::kFound, *question->address}
                               : NameLookup{Outcome::kNoAddress, 0};
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
