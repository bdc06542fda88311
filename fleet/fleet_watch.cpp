#include "fleet/fleet_watch.h"

#include <poll.h>
#include <pthread.h>

#include <chrono>
#include <random>
#include <utility>

#include "cms/runtime/log.h"
#include "fleet/boot_clock.h"

namespace cms::fleet {
namespace {

constexpr std::int64_t kLongestBehind = 1'000;  // ms
constexpr std::chrono::milliseconds kAgain{200};
constexpr std::chrono::milliseconds kMostJitter{5'000};  // so that not all load at once

}  // namespace

FleetWatch::FleetWatch(EngineAccess access, Loaded loaded, Changed changed)
    : engine_(std::move(access)), loaded_(std::move(loaded)), changed_(std::move(changed)) {
  thread_ = std::thread([this] { Run(); });
}

FleetWatch::~FleetWatch() {
  ends_ = true;
  end_.Signal();
  thread_.join();
}

void FleetWatch::EngineIsAt(std::int64_t revision) {
  if (revision == 0) {
    return;
  }
  engineAt_ = revision;
  if (revision == revision_ || revision_ == 0) {
    behindSince_ = 0;
  } else {
    std::int64_t none = 0;
    behindSince_.compare_exchange_strong(none, BootTick().count());
  }
}

// Answers of before, and of members that lag, may come late: only what lasts counts.
bool FleetWatch::IsBehind() const {
  const std::int64_t since = behindSince_;
  return since != 0 && BootTick().count() - since > kLongestBehind;
}

bool FleetWatch::Load() {
  auto keys = engine_.Load(kFleetPrefix);
  if (!keys) {
    return false;
  }
  FleetView view;
  for (const EngineKey& key : keys->keys) {
    view.Put(key);
  }
  revision_ = keys->header.revision;
  loaded_(std::move(view), keys->header.revision);
  return true;
}

// Of a compacted revision changes are not told any more: then everything is loaded again.
bool FleetWatch::Take(const WatchAnswer& answer) {
  if (answer.canceled) {
    revision_ = answer.compactRevision != 0 ? 0 : revision_.load();
    return false;
  }
  for (const EngineEvent& event : answer.events) {
    changed_(event);
  }
  if (answer.header.revision > revision_) {
    revision_ = answer.header.revision;
    behindSince_ = 0;
  }
  return !ends_;
}

void FleetWatch::WaitAWhile(std::chrono::milliseconds time) {
  pollfd wait{end_.Descriptor(), POLLIN, 0};
  poll(&wait, 1, static_cast<int>(time.count()));
}

void FleetWatch::Run() {
  pthread_setname_np(pthread_self(), "fleet-watch");
  std::minstd_rand random{std::random_device{}()};
  bool isFirst = true;
  while (!ends_) {
    if (IsBehind()) {
      behindSince_ = 0;
      if (engineAt_ < revision_) {
        Log(LogLevel::kWarning, "fleet", "the engine was restored: loading everything again");
        revision_ = 0;
      }
    } else if (revision_ == 0 && !isFirst) {
      WaitAWhile(std::chrono::milliseconds(random() % kMostJitter.count()));
    }
    isFirst = false;
    if (revision_ != 0 || Load()) {
      engine_.Watch(
          kFleetPrefix, revision_ + 1, [this](const WatchAnswer& answer) { return Take(answer); },
          [this] { return !ends_ && !IsBehind(); });
    }
    WaitAWhile(kAgain);
  }
}

}  // namespace cms::fleet
