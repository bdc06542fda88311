// From what a site's recording and its connection are doing to the gaps in the gap log.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cms/recording/gap_log.h"
#include "cms/recording/recording_status.h"

namespace cms {

// What a recording needs to know of its stream.
struct ConnectionSight {
  bool playing = false;
  GapCause cause = GapCause::kStreamClosed;  // while it does not play
  std::uint64_t lastVideoTick = 0;  // cms::TickMilliseconds of the last video frame that came
  bool soundAlone = false;          // it has no video at all
};

struct RecordingSight {
  Moment now;
  bool armed = false;         // a kind runs, or would by itself
  bool wanted = false;        // frames are to be recorded now
  bool alwaysWanted = false;  // and all the time, not only while an event lasts
  RecordingStatus recording;
  ConnectionSight connection;
};

// Looks about once a second. What counts is the video that is recorded: a gap begins with the last
// recorded frame and ends with the next one, whatever the connection does in between; only its
// cause may change. A connection that is lost, or a disk that fails, is a gap once it has been seen
// for a second or nothing has been recorded for two; a stream that plays and brings no picture is
// one after kSilentMs, or three times the usual distance of its frames. A hole that is over before
// it is seen is written when its end is. When the clock is set, a gap that lasts ends and goes on
// as another one, and what was before counts by what has passed since. One thread at a time; every
// call may wait for the disk.
class SiteGaps {
 public:
  static constexpr std::uint64_t kSilentMs = 3'000;

  void SetDataRoot(const std::string& folder) { log_.SetDataRoot(folder); }
  void SetSite(const GapSite& site) { log_.SetSite(site); }
  void Look(const RecordingSight& sight);
  bool HasWaiting() const { return log_.HasWaiting(); }
  std::optional<OpenGap> Open() const { return log_.Open(); }
  const GapTotals& Totals() const { return log_.Totals(); }

 private:
  struct Cause {
    GapCause cause = GapCause::kUnknown;
    int error = 0;
    bool operator==(const Cause&) const = default;
  };
  std::optional<Cause> CauseOf(const RecordingSight& sight) const;
  Cause ConnectionCause(const ConnectionSight& connection) const;
  void Arm(const RecordingSight& sight);
  bool TakeFrames(const RecordingStatus& recording, bool all);
  void LearnDistance(std::uint64_t frames, std::uint64_t milliseconds);
  std::uint64_t SilentLimit() const;

  std::int64_t WallOf(const Moment& moment) const;

  GapLogWriter log_;
  Moment now_;  // of the look
  bool armed_ = false;
  bool alwaysWanted_ = false;       // when last looked while armed
  Moment good_;                     // until then what was wanted was recorded
  std::uint64_t frames_ = 0;        // video frames that were recorded when last looked
  std::uint64_t silences_ = 0;      // silences that were over then
  std::optional<Cause> seen_;       // when last looked
  std::uint64_t seenSince_ = 0;     // tick
  std::uint64_t playingSince_ = 0;  // tick, 0 while the stream does not play

  // Of the latest frames: how many, and how many milliseconds they took.
  double usualFrames_ = 0;
  double usualMs_ = 0;
};

}  // namespace cms
