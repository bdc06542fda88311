// Which event recordings of one channel begin and end, and the frames from before them.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "cms/recording/drv_recorder.h"
#include "cms/recording/recording_kind.h"
#include "cms/recording/site/internal/pre_alarm_buffer.h"

namespace cms {

// An event recording begins with the first frame that carries a mark of its kind, in its header or
// in the event state, while its kind is enabled, and goes on until no frame carried one for the
// record duration; what the event state says holds for the moment, so frames that were held up on
// their way are waited for that long. It begins in front of that frame, at a key frame: that of the
// running group of pictures, or the newest that is as old as the pre-alarm. So that the group is
// ready for the next event, it ends with a key frame, and never in front of its first recorded
// frame. A recording that cannot begin, because no file can be opened, is tried once a second while
// it is due.
//
// Under the site's recorder lock, which the calls of the receiving thread and of the clock hold.
class EventRecording {
 public:
  explicit EventRecording(unsigned channel) : channel_(channel) {}

  // Seconds 0 to 255, the buffer's bytes (0: PreAlarmBuffer::DefaultBytes); what was kept is gone.
  void SetPreAlarm(const FX::FX_DRVRecorder& recorder, unsigned seconds, bool enabled,
                   std::size_t bytes);
  // To be called when a state was turned on or off: frames are kept while an event may begin.
  void FollowStates(const FX::FX_DRVRecorder& recorder);

  // In front of every video frame: begins and ends what is to begin and to end with it. `state` is
  // the channel's event state.
  struct Decision {
    unsigned marks;  // the frame's and the state's, as bits of the event state
    FX::FX_DRVRecorder::FrameUse use;
  };
  Decision Decide(FX::FX_DRVRecorder& recorder, const FrameView& frame, unsigned state,
                  unsigned durationSeconds);
  // Behind it: a frame that was not recorded is kept.
  void NoteVideo(FX::FX_DRVRecorder& recorder, const FrameView& frame, bool recorded);
  void NoteAudio(const FrameView& frame, bool recorded);

  // For a stream that fell silent: ends what is over.
  void OnClock(FX::FX_DRVRecorder& recorder, unsigned state, unsigned durationSeconds);

  // An event by hand, with the frames that were kept: it goes on until it is stopped. False
  // when no file could be opened.
  bool Start(FX::FX_DRVRecorder& recorder, RecordKind kind);
  // In front of a stop by hand: nothing begins without a new mark.
  void Forget(RecordKind kind);

  bool IsDue() const;  // a recording that could not begin yet

 private:
  static constexpr std::uint64_t kSilentMs = 5'000;
  static constexpr std::uint64_t kRetryMs = 1'000;
  // How long the next key frame is waited for when the event is over.
  static constexpr std::uint64_t kLongestGroupMs = 30'000;

  struct Running {
    bool own = false;            // begun by a mark, so it ends without one
    bool due = false;            // marked while its kind is on, and not begun yet
    bool recorded = false;       // a frame of it
    std::uint64_t lastMark = 0;  // tick
    bool IsPast(std::uint64_t tick, unsigned durationSeconds) const;
  };

  Running& EventOf(RecordKind kind) { return running_[IndexOf(kind)]; }
  // `taken`: of the frame in hand.
  bool IsOver(const FX::FX_DRVRecorder& recorder, RecordKind kind, std::uint64_t now,
              std::uint64_t taken, unsigned durationSeconds) const;
  bool Begin(FX::FX_DRVRecorder& recorder, RecordKind kind, std::uint32_t seconds);
  std::uint32_t RecordKept(FX::FX_DRVRecorder& recorder);
  void Keep(const FX::FX_DRVRecorder& recorder);

  const unsigned channel_;
  bool preAlarmEnabled_ = false;
  unsigned preAlarm_ = 0;
  std::size_t bytes_ = 0;                 // as SetPreAlarm was told
  std::unique_ptr<PreAlarmBuffer> kept_;  // frames that are not recorded
  std::array<Running, kEventKinds.size()> running_;
  std::uint64_t retryTick_ = 0;
  std::uint32_t recordedSince_ = 0;  // header time of the first frame of the unbroken recording
  std::uint64_t lastFrame_ = 0;      // tick
};

}  // namespace cms
