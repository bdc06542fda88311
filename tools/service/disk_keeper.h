// Keeps one disk of the service within its limits.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>

#include "cms/recording/keep/keep_recordings.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/runtime/wake_up.h"
#include "tools/service/days_clock.h"
#include "tools/service/disk_place.h"
#include "tools/service/recorder_config.h"
#include "tools/service/recorder_figures.h"

namespace tools {

// What a configuration says of a disk's recordings. Those of sites that are not in it any more are
// kept as long as most.
cms::KeepOptions KeepOptionsOf(const RecorderConfig& config, const DiskConfig& disk);

// Looks whether the disk is there, mends what a kill left, then removes recordings every now and
// then, and at once when the space that is kept free is half gone. On a thread of its own: a disk
// that hangs holds up its own keeper alone. What was moved elsewhere is kept by another thread, as
// far as that place answers. Members may be called by any thread and wait for nobody, unless they
// say so.
class DiskKeeper {
 public:
  // `place`: that of the options' root.
  DiskKeeper(std::shared_ptr<DiskPlace> place, cms::KeepOptions options);
  ~DiskKeeper();  // waits for a removal that runs
  DiskKeeper(const DiskKeeper&) = delete;
  DiskKeeper& operator=(const DiskKeeper&) = delete;

  void Become(cms::KeepOptions options);  // from the next turn on, which comes at once
  void AskToEnd();
  using Clock = std::chrono::steady_clock;
  bool WaitEnded(Clock::time_point until) const;  // false when it has not
  bool HasEnded() const { return WaitEnded(Clock::now()); }

  const std::shared_ptr<DiskPlace>& Place() const { return place_; }
  DiskFigures Figures() const;  // as of the last turn

 private:
  void Run();
  void KeepMoved();
  bool Wait(cms::WakeUp& wake, std::chrono::milliseconds time) const;
  void WaitForTurn();
  void Mend();
  bool IsToEnd() const;
  bool IsShortOfSpace() const;
  bool LeadsElsewhere() const;
  cms::KeepOptions OptionsNow() const;
  std::int64_t DaysNow();
  void Turn();
  void Take(const cms::KeepReport& report);
  void TellEnd();

  const std::shared_ptr<DiskPlace> place_;
  const std::string root_;
  DaysClock daysClock_;  // the keeping thread's
  bool isMended_ = false;
  bool isAllRemoved_ = true;  // what the last turn wanted to
  cms::WakeUp wake_;
  cms::WakeUp wakeMoved_;
  cms::WakeUp ended_;
  std::atomic<int> running_{2};  // threads
  mutable CMSCritical lock_;
  cms::KeepOptions options_ CMS_GUARDED_BY(lock_);  // its time is that of the last turn
  bool endAsked_ CMS_GUARDED_BY(lock_) = false;
  DiskFigures figures_ CMS_GUARDED_BY(lock_);
  std::thread thread_;
  std::thread movedThread_;
};

}  // namespace tools
