#include "cms/live/internal/site_gaps.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace cms {
namespace {

GapCause CauseOfFault(ConnectionFault fault) {
  switch (fault) {
    case ConnectionFault::kNone:
      return GapCause::kConnecting;
    case ConnectionFault::kPasswordRefused:
      return GapCause::kPasswordRefused;
    case ConnectionFault::kBadAnswer:
    case ConnectionFault::kCameraFull:
    case ConnectionFault::kNoSuchStream:
    case ConnectionFault::kTransportRefused:
    case ConnectionFault::kNoUsableVideo:
    case ConnectionFault::kRefused:
      return GapCause::kCameraRefuses;
    case ConnectionFault::kOutOfResources:
      return GapCause::kOutOfResources;
    case ConnectionFault::kCancelled:
      return GapCause::kStreamClosed;
    case ConnectionFault::kBadAddress:
    case ConnectionFault::kUnreachable:
    case ConnectionFault::kNoAnswer:
    case ConnectionFault::kClosedByCamera:
    case ConnectionFault::kStreamDied:
      break;
  }
  return GapCause::kCameraGone;
}

bool IsOfConnection(GapCause cause) {
  return cause != GapCause::kDiskFull && cause != GapCause::kWriteFailed &&
         cause != GapCause::kWaitingForKeyFrame;
}

}  // namespace

std::optional<SiteGaps::Cause> SiteGaps::CauseOf(const RecordingSight& sight) const {
  if (!sight.wanted || sight.recording.frames != frames_) {
    return std::nullopt;
  }
  if (sight.connection != ConnectionState::kPlaying) {
    const bool isClosed = sight.connection == ConnectionState::kClosed;
    const GapCause cause = isClosed && sight.fault == ConnectionFault::kNone
                               ? GapCause::kStreamClosed
                               : CauseOfFault(sight.fault);
    // The next attempt has no fault yet: what was is what still is.
    const bool trying = cause == GapCause::kConnecting;
    const auto open = log_.Open();
    return Cause{trying && open && IsOfConnection(open->cause) ? open->cause : cause};
  }
  switch (sight.recording.state) {
    case RecordingState::kFailed: {
      const int error = sight.recording.error;
      const bool full = error == ENOSPC || error == EDQUOT;
      return Cause{full ? GapCause::kDiskFull : GapCause::kWriteFailed, error};
    }
    case RecordingState::kRecording:
      return std::nullopt;  // a slow stream
    case RecordingState::kIdle:
    case RecordingState::kWaitingForKeyFrame:
      break;
  }
  return Cause{GapCause::kWaitingForKeyFrame};
}

void SiteGaps::Arm(const RecordingSight& sight) {
  armed_ = true;
  log_.EndAbandoned(sight.wall);
  log_.End(sight.wall);
  goodUntil_ = sight.tick;
  seen_.reset();
}

void SiteGaps::Look(const RecordingSight& sight) {
  if (!sight.armed) {
    if (std::exchange(armed_, false)) {
      // Between events nothing is missed, and after the last one neither.
      alwaysWanted_ ? log_.Begin(GapCause::kStopped, sight.wall) : log_.End(sight.wall);
    }
    log_.Update(sight.wall);
    frames_ = sight.recording.frames;
    return;
  }
  if (!armed_) {
    Arm(sight);
  }
  alwaysWanted_ = sight.alwaysWanted;
  constexpr std::uint64_t kLastingMs = 1'000;
  const std::optional<Cause> cause = CauseOf(sight);
  if (cause != seen_) {
    seen_ = cause;
    seenSince_ = sight.tick;
  }
  if (!cause) {
    log_.End(sight.wall);
    goodUntil_ = std::max(goodUntil_, sight.wanted ? sight.recording.lastFrameTick : sight.tick);
  } else if (sight.tick - seenSince_ >= kLastingMs) {
    const auto since = static_cast<std::int64_t>((sight.tick - goodUntil_) / 1000);
    log_.Begin(cause->cause, log_.Open() ? sight.wall : sight.wall - since, cause->error);
  }
  frames_ = sight.recording.frames;
  log_.Update(sight.wall);
}

}  // namespace cms
