// The recording of one site client: its recorder, its events, its clock, its gaps and its mover.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cms/recording/channel_set.h"
#include "cms/recording/drv_recorder.h"
#include "cms/recording/site/internal/event_recording.h"
#include "cms/recording/site/internal/moved_recordings.h"
#include "cms/recording/site/internal/site_gaps.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/turns.h"

namespace cms {

// Threads: OnVideo and OnAudio on the receiving thread, Turn on a thread of
// Turns::Recordings about once a second while there is something to do, everything else on
// any. Channels are below kChannels. Locks: lock_ before the recorder's own.
class SiteRecording final : public Turns::Member {
 public:
  using ConnectionSource = std::function<ConnectionSight()>;

  explicit SiteRecording(ConnectionSource connection);
  ~SiteRecording();  // stops everything; no frame comes any more
  SiteRecording(const SiteRecording&) = delete;
  SiteRecording& operator=(const SiteRecording&) = delete;

  FX::FX_DRVRecorder& Recorder() { return recorder_; }
  CMSCritical& Lock() { return lock_; }

  void SetDataRoot(const std::string& folder);  // before anything is recorded
  void SetParam(const stRecordParam& param);
  void SetDevice(const wchar_t* address, const wchar_t* siteName, std::uint16_t port);
  void SetDuration(unsigned seconds) { duration_.store(seconds, std::memory_order_relaxed); }
  unsigned Duration() const { return duration_.load(std::memory_order_relaxed); }
  void SetPreAlarm(unsigned channel, unsigned seconds, bool enabled, std::size_t bytes);
  void SetEventState(unsigned channel, unsigned state) { state_[channel] = state; }
  unsigned EventState(unsigned channel) const { return state_[channel]; }

  bool Start(unsigned channel, RecordKind kind);
  std::string StartError() const;  // of the last start, empty when it succeeded
  void RefuseStart(std::string error);
  void Stop(unsigned channel, RecordKind kind);
  void StopAll();
  void TurnState(unsigned channel, RecordKind kind, bool on);
  void TurnOffAllStates();

  // Record the frame if anything of its channel is recorded. What comes with it in marks and as the
  // channel's event state is returned as bits of that state.
  unsigned OnVideo(const FrameView& frame);
  void OnAudio(const FrameView& frame);

  // Waits until what was recorded is in its files and the closed ones are finished; false at once
  // when all that is left waits for a disk that is full or read-only.
  bool WaitRecorded(int milliseconds);
  std::vector<std::wstring> TakeFiles();

  std::optional<OpenGap> Gap() const;  // never waits for the disk
  GapTotals TotalGaps() const;         // likewise

  bool StartMoving(const wchar_t* target);
  void StopMoving();
  bool IsMoving() const;

  std::uint64_t Turn(std::uint64_t now) override;

 private:
  static constexpr std::uint64_t kTurnMs = 1'000;
  static constexpr std::size_t kMostFiles = 1'000;
  static constexpr int kLastFilesMs = 10'000;  // for writing them, and for moving them

  bool IsScheduled() const { return recorder_.IsScheNormalRecStateOn(); }
  bool IsAlwaysWanted() const;  // every frame, not those of events alone
  bool IsWanted() const;
  bool IsArmed() const;
  void Wake();
  void StopStarted(unsigned channel, RecordKind kind);
  std::string WhyNotStarted() const;
  void FollowStates(unsigned channel) CMS_REQUIRES(lock_);
  void FollowDue(unsigned channel) CMS_REQUIRES(lock_);
  void StartSchedule();
  void CollectFinished();
  void LookForGaps() CMS_REQUIRES(turning_);
  std::string DataRoot() const;

  const ConnectionSource connection_;
  FX::FX_DRVRecorder recorder_;
  std::atomic<unsigned> duration_{0};
  std::array<std::atomic<unsigned>, kChannels> state_{};

  mutable CMSCritical lock_;  // the recorder lock: what is decided for a frame
  std::vector<EventRecording> events_ CMS_GUARDED_BY(lock_);
  ChannelSet due_;  // whose event recording could not begin yet

  mutable CMSCritical deviceLock_;
  std::string dataRoot_ CMS_GUARDED_BY(deviceLock_);
  GapSite site_ CMS_GUARDED_BY(deviceLock_);
  std::string startError_ CMS_GUARDED_BY(deviceLock_);

  CMSCritical turning_;  // before all others
  SiteGaps gaps_ CMS_GUARDED_BY(turning_);
  std::atomic<bool> unseen_{false};  // records all the time, and the gaps were not looked at since
  mutable CMSCritical gapLock_;
  std::optional<OpenGap> gap_ CMS_GUARDED_BY(gapLock_);
  GapTotals totalGaps_ CMS_GUARDED_BY(gapLock_);

  mutable CMSCritical filesLock_;  // before the mover's
  std::deque<std::wstring> files_ CMS_GUARDED_BY(filesLock_);
  std::unique_ptr<MovedRecordings> mover_ CMS_GUARDED_BY(filesLock_);
};

}  // namespace cms
