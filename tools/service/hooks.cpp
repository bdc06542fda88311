#include "tools/service/hooks.h"

#include <pthread.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "cms/runtime/log.h"
#include "cms/runtime/wake_up.h"
#include "tools/service/hook_sender.h"

namespace tools {
namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds kFirstPause{1'000};
constexpr std::chrono::milliseconds kLongestPause{60'000};

std::unique_ptr<HookSender> MakeSender(const HookConfig& config) {
  switch (config.kind) {
    case HookConfig::Kind::kPost:
      return MakePostSender(config);
    case HookConfig::Kind::kMqtt:
      return MakeMqttSender(config);
    case HookConfig::Kind::kCommand:
      break;
  }
  return MakeCommandSender(config);
}

}  // namespace

class Hooks::Queue {
 public:
  explicit Queue(const HookConfig& config)
      : config_(config), sender_(MakeSender(config)), thread_([this] { Work(); }) {}

  // All of them are told to end before the first is waited for.
  void End(SteadyClock::time_point limit) {
    const std::lock_guard hold(lock_);
    end_ = limit;
    changed_.notify_all();
  }
  // At the limit at the latest nothing is waited for any more.
  ~Queue() {
    {
      std::unique_lock hold(lock_);
      const auto limit = end_.value_or(SteadyClock::now());
      end_ = limit;
      changed_.notify_all();
      changed_.wait_until(hold, limit, [this] { return ended_; });
    }
    interrupt_.Signal();
    thread_.join();
  }

  void Tell(const HookEvent& event) {
    if (!config_.events.empty() && std::find(config_.events.begin(), config_.events.end(),
                                             event.kind) == config_.events.end()) {
      return;
    }
    const std::lock_guard hold(lock_);
    if (waiting_.size() >= kMostWaiting) {
      // The front one may be in delivery; it is dropped all the same, and its end not counted.
      waiting_.pop_front();
      ++first_;
      ++figures_.dropped;
    }
    waiting_.push_back(event);
    changed_.notify_all();
  }

  HookFigures Figures() const {
    const std::lock_guard hold(lock_);
    HookFigures figures = figures_;
    figures.name = config_.name;
    figures.waiting = waiting_.size();
    return figures;
  }

 private:
  bool IsOver() const { return end_ && SteadyClock::now() >= *end_; }

  void Work() {
    pthread_setname_np(pthread_self(), "orvanta-hook");
    std::unique_lock hold(lock_);
    unsigned failures = 0;
    while (true) {
      changed_.wait(hold, [this] { return end_ || !waiting_.empty(); });
      if (waiting_.empty() || IsOver()) {
        break;
      }
      const HookEvent event = waiting_.front();
      const std::uint64_t number = first_;
      hold.unlock();
      HookAnswer answer = sender_->Send(event, interrupt_.Descriptor());
      hold.lock();
      if (number != first_) {  // it was dropped meanwhile
        failures = 0;
        continue;
      }
      if (answer.result != HookResult::kDone) {
        ++failures;
        ++figures_.failed;
        cms::Log(cms::LogLevel::kWarning, "hook", config_.name + ": " + answer.problem);
      }
      figures_.problem = std::move(answer.problem);
      const bool givenUp = answer.result == HookResult::kRefused && failures >= kMostRefusals;
      if (answer.result == HookResult::kDone || givenUp) {
        ++(givenUp ? figures_.dropped : figures_.told);
        waiting_.pop_front();
        ++first_;
        failures = 0;
        continue;
      }
      // With an end in sight there is no time for pauses, and no use in trying without any.
      const auto pause = std::min(kFirstPause * (1u << std::min(failures - 1, 6u)), kLongestPause);
      changed_.wait_for(hold, pause, [&] { return end_ || number != first_; });
      if (end_ && number == first_) {
        changed_.wait_until(hold, std::min(*end_, SteadyClock::now() + kFirstPause));
      }
    }
    ended_ = true;
    changed_.notify_all();
  }

  const HookConfig config_;
  cms::WakeUp interrupt_;
  const std::unique_ptr<HookSender> sender_;  // the thread's

  mutable std::mutex lock_;
  std::condition_variable changed_;
  // Guarded by it.
  std::deque<HookEvent> waiting_;
  std::uint64_t first_ = 0;  // the number of the front one
  HookFigures figures_;
  std::optional<SteadyClock::time_point> end_;
  bool ended_ = false;

  std::thread thread_;  // last: it uses what stands above
};

Hooks::Hooks(const std::vector<HookConfig>& configs) {
  for (const HookConfig& config : configs) {
    queues_.push_back(std::make_unique<Queue>(config));
  }
}

Hooks::~Hooks() {
  const auto limit = SteadyClock::now() + std::chrono::milliseconds(kEndMs);
  for (const auto& queue : queues_) {
    queue->End(limit);
  }
}

void Hooks::Tell(const HookEvent& event) {
  for (const auto& queue : queues_) {
    queue->Tell(event);
  }
}

std::vector<HookFigures> Hooks::Figures() const {
  std::vector<HookFigures> figures;
  figures.reserve(queues_.size());
  for (const auto& queue : queues_) {
    figures.push_back(queue->Figures());
  }
  return figures;
}

}  // namespace tools
