// From what a site's recording and its connection are doing to the gaps in the gap log.
#pragma once

#include <cstdint>
#include <optional>

#include "cms/live/connection_status.h"
#include "cms/recording/gap_log.h"
#include "cms/recording/recording_status.h"

namespace cms {

struct RecordingSight {
  std::int64_t wall = 0;      // seconds since 1970-01-01 UTC
  std::uint64_t tick = 0;     // milliseconds
  bool armed = false;         // a kind runs, or would by itself
  bool wanted = false;        // frames are to be recorded now
  bool alwaysWanted = false;  // and all the time, not only while an event lasts
  RecordingStatus recording;
  ConnectionState connection = ConnectionState::kClosed;
  ConnectionFault fault = ConnectionFault::kNone;
};

// Looks about once a second. A gap, or another cause of one, counts once it has been seen for a
// second, and reaches back to the last recorded frame. One thread at a time; every call may wait
// for the disk.
class SiteGaps {
 public:
  void SetSite(const GapSite& site) { log_.SetSite(site); }
  void Look(const RecordingSight& sight);
  bool HasWaiting() const { return log_.HasWaiting(); }
  std::optional<OpenGap> Open() const { return log_.Open(); }

 private:
  struct Cause {
    GapCause cause = GapCause::kUnknown;
    int error = 0;
    bool operator==(const Cause&) const = default;
  };
  std::optional<Cause> CauseOf(const RecordingSight& sight) const;
  void Arm(const RecordingSight& sight);

  GapLogWriter log_;
  bool armed_ = false;
  bool alwaysWanted_ = false;    // when last looked while armed
  std::uint64_t goodUntil_ = 0;  // tick: until then what was wanted was recorded
  std::uint64_t frames_ = 0;     // recorded when last looked
  std::optional<Cause> seen_;    // when last looked
  std::uint64_t seenSince_ = 0;
};

}  // namespace cms
