#include "cms/recording/site/internal/site_gaps.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <utility>

namespace cms {
namespace {

constexpr std::uint64_t kLastingMs = 1'000;
constexpr std::uint64_t kShortestGapMs = 2'000;

bool IsOfConnection(GapCause cause) {
  return cause != GapCause::kDiskFull && cause != GapCause::kWriteFailed &&
         cause != GapCause::kWaitingForKeyFrame;
}

}  // namespace

SiteGaps::Cause SiteGaps::ConnectionCause(const ConnectionSight& connection) const {
  // The next attempt has no fault yet: what was is what still is.
  const bool trying = connection.cause == GapCause::kConnecting;
  const auto open = log_.Open();
  return {trying && open && IsOfConnection(open->cause) ? open->cause : connection.cause};
}

// Of a look that saw no new frame.
std::optional<SiteGaps::Cause> SiteGaps::CauseOf(const RecordingSight& sight) const {
  if (!sight.connection.playing) {
    return ConnectionCause(sight.connection);
  }
  if (sight.recording.state == RecordingState::kFailed) {
    const int error = sight.recording.error;
    const bool full = error == ENOSPC || error == EDQUOT;
    return Cause{full ? GapCause::kDiskFull : GapCause::kWriteFailed, error};
  }
  const std::uint64_t cameSince = std::max(sight.connection.lastVideoTick, playingSince_);
  if (sight.now.tick - std::min(cameSince, sight.now.tick) >= SilentLimit()) {
    return Cause{GapCause::kNoPictures};
  }
  if (sight.recording.state == RecordingState::kRecording) {  // others of the site's channels send
    const bool silent = sight.now.tick - good_.tick >= SilentLimit();
    return silent ? std::optional(Cause{GapCause::kNoPictures}) : std::nullopt;
  }
  if (sight.connection.lastVideoTick >= playingSince_) {
    return Cause{GapCause::kWaitingForKeyFrame};
  }
  return std::nullopt;  // it has only begun to play
}

void SiteGaps::Arm(const RecordingSight& sight) {
  armed_ = true;
  log_.EndAbandoned(sight.now.wall);
  log_.End(sight.now.wall);
  good_ = sight.now;
  seen_.reset();
}

std::uint64_t SiteGaps::SilentLimit() const {
  const double usual = usualFrames_ > 0 ? usualMs_ / usualFrames_ : 0.0;
  return std::max(kSilentMs, static_cast<std::uint64_t>(3 * usual));
}

// One long hole among so many frames hardly counts; a stream that is slow makes itself known by its
// second frame.
void SiteGaps::LearnDistance(std::uint64_t frames, std::uint64_t milliseconds) {
  constexpr double kMostFrames = 64;
  constexpr std::uint64_t kLongestMs = 60'000;
  usualFrames_ += static_cast<double>(frames);
  usualMs_ += static_cast<double>(std::min(milliseconds, kLongestMs));
  if (usualFrames_ > kMostFrames) {
    usualMs_ *= kMostFrames / usualFrames_;
    usualFrames_ = kMostFrames;
  }
}

// True when there were new ones. They end the gap that lasts; a hole among them is written now, if
// everything was wanted since the last look.
bool SiteGaps::TakeFrames(const RecordingStatus& recording, bool all) {
  const std::uint64_t begin = good_.tick;
  const std::uint64_t kept = recording.lastSilences.size();
  const std::uint64_t oldest = recording.silences - std::min(recording.silences, kept);
  for (std::uint64_t i = std::max(silences_, oldest); i < recording.silences; ++i) {
    const RecordingSilence& silence = recording.lastSilences[i % kept];
    if (silence.to.tick <= good_.tick) {
      continue;
    }
    const Moment from = silence.from.tick > good_.tick ? silence.from : good_;
    const std::uint64_t limit = seen_ ? kShortestGapMs : SilentLimit();
    if (all && !log_.Open() && silence.to.tick - from.tick >= limit) {
      const Cause cause = seen_.value_or(Cause{GapCause::kNoPictures});
      log_.Begin(cause.cause, WallOf(from), cause.error);
    }
    log_.End(WallOf(silence.to));
    good_ = silence.to;
  }
  silences_ = recording.silences;
  const std::uint64_t frames =
      recording.videoFrames - std::exchange(frames_, recording.videoFrames);
  if (frames == 0 || recording.lastVideo.tick < begin) {
    return frames != 0;
  }
  log_.End(WallOf(recording.lastVideo));
  good_ = recording.lastVideo;
  LearnDistance(frames, good_.tick - begin);
  return true;
}

// By today's clock, if it was set since by more than moments differ anyway.
std::int64_t SiteGaps::WallOf(const Moment& moment) const {
  constexpr std::int64_t kSet = 30;
  const auto passed =
      static_cast<std::int64_t>((now_.tick - std::min(moment.tick, now_.tick)) / 1000);
  return std::abs(now_.wall - moment.wall - passed) <= kSet ? moment.wall : now_.wall - passed;
}

void SiteGaps::Look(const RecordingSight& sight) {
  const Moment last = std::exchange(now_, sight.now);
  if (const std::int64_t wall = WallOf(last); last.tick != 0 && wall != last.wall) {
    if (const auto open = log_.Open()) {
      log_.End(last.wall);
      log_.Begin(open->cause, wall, open->error);
    }
  }
  if (!sight.armed) {
    if (std::exchange(armed_, false)) {
      TakeFrames(sight.recording, alwaysWanted_);
      // Between events nothing is missed, and after the last one neither.
      alwaysWanted_ ? log_.Begin(GapCause::kStopped, sight.now.wall) : log_.End(sight.now.wall);
    }
    log_.Update(sight.now.wall);
    return;
  }
  if (!armed_) {
    Arm(sight);
  }
  const bool all = std::exchange(alwaysWanted_, sight.alwaysWanted) && sight.alwaysWanted;
  if (!sight.connection.playing) {
    playingSince_ = 0;
  } else if (playingSince_ == 0) {
    playingSince_ = sight.now.tick;
  }
  const bool isNew = TakeFrames(sight.recording, all);
  std::optional<Cause> cause;
  if (!sight.wanted) {
    log_.End(sight.now.wall);
    good_ = sight.now;
  } else if (!isNew) {
    cause = CauseOf(sight);
  }
  if (cause != seen_) {
    seen_ = cause;
    seenSince_ = sight.now.tick;
  }
  if (cause) {
    const bool isOpen = log_.Open().has_value();
    const bool lasts = sight.now.tick - seenSince_ >= kLastingMs;
    if (lasts || (!isOpen && sight.now.tick - good_.tick >= kShortestGapMs)) {
      log_.Begin(cause->cause, isOpen ? sight.now.wall : WallOf(good_), cause->error);
    }
  }
  log_.Update(sight.now.wall);
}

}  // namespace cms
