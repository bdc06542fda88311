// PlaybackTransport, the state that the playback controls change: clock, speed, steps and target.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "cms/playback/internal/picture_store.h"
#include "cms/playback/playback_config.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace cms {

// One clock for all channels. Whoever moves it other than by the passing of time begins an epoch:
// the clock is held until every displayed channel has prepared what it shows at the new position
// (staged in its PictureStore) or the hold has lasted too long; then all of it is shown at once and
// the clock goes on. While it runs, whoever reads it, a reader thread or a viewer, shows what is
// due in all channels. Channels tell where they have no recording, and the clock passes over what
// is common to all.
//
// The lock is the transport lock: taken behind the controller's, and before those of the pictures.
// Reader threads call Look, Wait and the reports; the controller everything else.
class PlaybackTransport {
 public:
  enum class Coverage { kUnknown, kCovered, kGap, kEnd };

  // Where a channel is with its recording.
  struct Standing {
    Coverage coverage = Coverage::kUnknown;
    std::int64_t edge = 0;  // in a gap: the time of the next frame in the direction of play; at the
                            // end: that of the last one there is
    bool last = false;      // no frame follows in the direction of play
    bool operator==(const Standing&) const = default;
  };

  // What a channel's reader thread goes by.
  struct View {
    bool quit = false;
    bool displayed = false;
    bool held = false;     // the clock waits for the channels
    bool running = false;  // it moves by itself, once it is not held
    bool atEnd = false;    // it stands at the last frame of all channels
    bool forward = true;
    bool keysOnly = false;
    int working = 0;  // channels that do not wait
    int displayedCount = 0;
    int steps = 0;    // pictures to move by, for this channel to find (ResolveStep)
    double rate = 1;  // media time for a unit of time, always positive
    std::int64_t position = 0;
    std::uint64_t epoch = 0;
    std::uint64_t version = 0;  // changes with anything but the passing of time
  };

  // What a change of speed asks of the channels.
  struct Direction {
    bool forward = true;
    int normalSpeed = 0;  // 1: neither slow mode nor another direction
  };

  void Start(std::vector<std::shared_ptr<PictureStore>> channels, std::int64_t position,
             bool paused);
  void Stop();

  // --- For the controller -----------------------------------------------------------------------
  void Pause();
  void Resume();
  void Step(bool forward);
  // `tell` is called with the locks held, before the channels see the change.
  void ChangeSpeed(bool up, const std::function<void(const Direction&)>& tell);
  void SetSlowMode(bool slow);
  void Seek(std::int64_t time);
  void Synchronise();  // anew where the clock is
  void SetDisplayed(std::vector<bool> displayed, std::size_t current);
  void SetQuick(std::size_t channel, bool quick);

  int Speed();
  bool IsStep();
  bool IsSlow();
  std::int64_t Target();
  std::int64_t Position();
  bool AllAtEnd();
  bool IsAtEnd(std::size_t channel);
  std::uint64_t Epoch();
  std::int64_t MaximumSkew();
  PLAYBACK_CHANNEL_STATE StateOf(std::size_t channel);
  bool WaitShown(int milliseconds);
  void ShowDue();  // for those who look at pictures: what the clock has come to since

  // --- For a channel's reader thread ------------------------------------------------------------
  View Look(std::size_t channel);
  // Until something changes or the channel shows another picture than this one, at most so many
  // milliseconds (negative: without limit).
  void Wait(std::size_t channel, std::uint64_t version, unsigned imageId, int milliseconds);
  // These are ignored when the epoch is over.
  void Prepared(std::size_t channel, std::uint64_t epoch, const Standing& standing);
  // True when the clock was moved for it.
  bool Report(std::size_t channel, std::uint64_t epoch, const Standing& standing);
  // The time of the picture that is the wanted number of steps away; nothing when there is none.
  void ResolveStep(std::size_t channel, std::uint64_t epoch, std::optional<std::int64_t> time);

 private:
  struct Channel {
    std::shared_ptr<PictureStore> pictures;
    std::unique_ptr<std::condition_variable_any> changed =
        std::make_unique<std::condition_variable_any>();  // for its reader thread
    bool displayed = true;
    bool quick = false;
    bool stepTried = false;
    std::uint64_t prepared = 0;  // epoch
    Standing standing;
  };

  double RateOfSpeed() const CMS_REQUIRES(lock_);
  std::int64_t Now() const CMS_REQUIRES(lock_);
  void Anchor(std::int64_t position) CMS_REQUIRES(lock_);
  void Changed() CMS_REQUIRES(lock_);
  void BeginEpoch(std::int64_t position) CMS_REQUIRES(lock_);
  void SetSpeed(int speed) CMS_REQUIRES(lock_);
  void ReleaseIfReady(bool late) CMS_REQUIRES(lock_);
  bool PassStepOn() CMS_REQUIRES(lock_);
  std::optional<std::int64_t> CommonEdge() const CMS_REQUIRES(lock_);
  bool AllEnded() const CMS_REQUIRES(lock_);
  bool Ended(const Channel& channel) const CMS_REQUIRES(lock_);
  std::int64_t ShowDueAt() CMS_REQUIRES(lock_);
  bool KeysOnly() const CMS_REQUIRES(lock_);

  CMSCritical lock_;
  std::condition_variable_any changed_;  // for the controller
  std::vector<Channel> channels_ CMS_GUARDED_BY(lock_);
  int working_ CMS_GUARDED_BY(lock_) = 0;
  std::size_t current_ CMS_GUARDED_BY(lock_) = 0;  // the channel that steps
  bool quit_ CMS_GUARDED_BY(lock_) = true;

  int speed_ CMS_GUARDED_BY(lock_) = 0;
  int stepForward_ CMS_GUARDED_BY(lock_) = 0;
  int stepBackward_ CMS_GUARDED_BY(lock_) = 0;
  bool slow_ CMS_GUARDED_BY(lock_) = false;
  std::int64_t target_ CMS_GUARDED_BY(lock_) = kPlaybackNoTargetTime;

  bool forward_ CMS_GUARDED_BY(lock_) = true;
  bool seeking_ CMS_GUARDED_BY(lock_) = false;
  int steps_ CMS_GUARDED_BY(lock_) = 0;  // signed, not taken yet
  std::size_t stepper_ CMS_GUARDED_BY(lock_) = 0;
  bool held_ CMS_GUARDED_BY(lock_) = false;
  std::uint64_t heldSince_ CMS_GUARDED_BY(lock_) = 0;
  bool atEnd_ CMS_GUARDED_BY(lock_) = false;
  std::uint64_t epoch_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t version_ CMS_GUARDED_BY(lock_) = 0;
  std::int64_t anchorPosition_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t anchorTick_ CMS_GUARDED_BY(lock_) = 0;
  std::int64_t skew_ CMS_GUARDED_BY(lock_) = 0;
};

}  // namespace cms
