// Follows the engine's keys of a fleet.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "cms/runtime/wake_up.h"
#include "fleet/engine_access.h"
#include "fleet/engine_client.h"
#include "fleet/fleet_view.h"

namespace cms::fleet {

// A thread of its own loads all keys, then has each change told as it happens, resuming at another
// member where one ends the connection or goes silent. Both are called on that thread.
class FleetWatch {
 public:
  using Loaded = std::function<void(FleetView view, std::int64_t revision)>;
  using Changed = std::function<void(const EngineEvent& event)>;

  FleetWatch(EngineAccess access, Loaded loaded, Changed changed);
  ~FleetWatch();
  FleetWatch(const FleetWatch&) = delete;
  FleetWatch& operator=(const FleetWatch&) = delete;

  // The engine answered elsewhere that it stands at this revision. Where the watch does not get
  // there within a second it goes to another member; where it is ahead, the engine was restored
  // from a snapshot, and everything is loaded again. Any thread.
  void EngineIsAt(std::int64_t revision);

 private:
  void Run();
  bool Load();
  bool Take(const WatchAnswer& answer);
  bool IsBehind() const;
  void WaitAWhile(std::chrono::milliseconds time);

  EngineClient engine_;
  const Loaded loaded_;
  const Changed changed_;
  std::atomic<bool> ends_ = false;
  std::atomic<std::int64_t> revision_ = 0;     // 0: everything has to be loaded
  std::atomic<std::int64_t> engineAt_ = 0;     // as told
  std::atomic<std::int64_t> behindSince_ = 0;  // ticks; 0: it is where the engine is
  WakeUp end_;
  std::thread thread_;
};

}  // namespace cms::fleet
