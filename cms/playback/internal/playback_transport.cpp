#include "cms/playback/internal/playback_transport.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <utility>

#include "cms/runtime/clock.h"

namespace cms {
namespace {

constexpr int kFastest = 6;
constexpr double kKeysOnlyRate = 8;
constexpr std::uint64_t kLongestHold = 2000;  // milliseconds

}  // namespace

// --- The clock ----------------------------------------------------------------------------------

double PlaybackTransport::RateOfSpeed() const {
  return std::ldexp(slow_ ? 0.5 : 1.0, std::abs(speed_ != 0 ? speed_ : 1) - 1);
}

std::int64_t PlaybackTransport::Now() const {
  if (speed_ == 0 || held_ || atEnd_) {
    return anchorPosition_;
  }
  const auto passed = static_cast<double>(TickMilliseconds() - anchorTick_) * RateOfSpeed();
  const auto moved = static_cast<std::int64_t>(passed);
  return forward_ ? anchorPosition_ + moved : anchorPosition_ - moved;
}

void PlaybackTransport::Anchor(std::int64_t position) {
  anchorPosition_ = position;
  anchorTick_ = TickMilliseconds();
}

void PlaybackTransport::Changed() {
  ++version_;
  changed_.notify_all();
  for (const Channel& channel : channels_) {
    channel.changed->notify_one();
  }
}

void PlaybackTransport::BeginEpoch(std::int64_t position) {
  Anchor(position);
  ++epoch_;
  held_ = true;
  heldSince_ = anchorTick_;
  atEnd_ = false;
  for (Channel& channel : channels_) {
    channel.standing = {};
  }
  Changed();
}

void PlaybackTransport::Start(std::vector<std::shared_ptr<PictureStore>> channels,
                              std::int64_t position, bool paused) {
  const ScopeLock guard(lock_);
  channels_.clear();
  for (auto& pictures : channels) {
    channels_.emplace_back();
    channels_.back().pictures = std::move(pictures);
  }
  working_ = static_cast<int>(channels_.size());
  current_ = 0;
  quit_ = false;
  speed_ = paused ? 0 : 1;
  stepForward_ = stepBackward_ = 0;
  slow_ = false;
  target_ = kPlaybackNoTargetTime;
  forward_ = true;
  seeking_ = false;
  steps_ = 0;
  skew_ = 0;
  BeginEpoch(position);
}

void PlaybackTransport::Stop() {
  const ScopeLock guard(lock_);
  quit_ = true;
  speed_ = 0;
  stepForward_ = stepBackward_ = 0;
  Changed();
}

// --- The controls -------------------------------------------------------------------------------

void PlaybackTransport::SetSpeed(int speed) {
  Anchor(Now());
  speed_ = speed;
  if (speed != 0) {
    forward_ = speed > 0;
  }
  stepForward_ = stepBackward_ = 0;
  steps_ = 0;
}

void PlaybackTransport::Pause() {
  const ScopeLock guard(lock_);
  SetSpeed(0);
  target_ = kPlaybackNoTargetTime;
  Changed();
}

void PlaybackTransport::Resume() {
  const ScopeLock guard(lock_);
  SetSpeed(1);
  BeginEpoch(anchorPosition_);
}

void PlaybackTransport::Step(bool forward) {
  const ScopeLock guard(lock_);
  const int waiting = steps_;
  SetSpeed(0);
  forward_ = forward;
  stepForward_ = forward ? 1 : 0;
  stepBackward_ = forward ? 0 : 1;
  target_ = forward ? kPlaybackNoTargetTime : 0;
  seeking_ = false;
  steps_ = waiting + (forward ? 1 : -1);
  stepper_ = current_;
  for (Channel& channel : channels_) {
    channel.stepTried = false;
  }
  BeginEpoch(anchorPosition_);
}

void PlaybackTransport::ChangeSpeed(bool up, const std::function<void(const Direction&)>& tell) {
  const ScopeLock guard(lock_);
  const int old = speed_;
  const int turn = up ? -1 : 1;  // the next step from here is a change of direction, not 0
  if (old == (up ? kFastest : -kFastest)) {
    return;
  }
  const int speed = old == turn ? -turn : old + (up ? 1 : -1);
  tell({speed > 0, speed > 0 && !slow_ && old != turn ? 1 : 0});
  SetSpeed(speed);
  BeginEpoch(anchorPosition_);
}

void PlaybackTransport::SetSlowMode(bool slow) {
  const ScopeLock guard(lock_);
  Anchor(Now());
  slow_ = slow;
  Changed();
}

void PlaybackTransport::Seek(std::int64_t time) {
  const ScopeLock guard(lock_);
  target_ = time;
  seeking_ = time != kPlaybackNoTargetTime;
  if (seeking_) {
    steps_ = 0;
    BeginEpoch(time);
  }
}

void PlaybackTransport::Synchronise() {
  const ScopeLock guard(lock_);
  BeginEpoch(Now());
}

void PlaybackTransport::SetDisplayed(std::vector<bool> displayed, std::size_t current) {
  const ScopeLock guard(lock_);
  bool any = false;
  for (std::size_t i = 0; i < channels_.size() && i < displayed.size(); ++i) {
    any = any || channels_[i].displayed != displayed[i];
    channels_[i].displayed = displayed[i];
    if (!displayed[i]) {
      channels_[i].pictures->Blank();
    }
  }
  current_ = current;
  if (any) {
    BeginEpoch(Now());
  }
}

void PlaybackTransport::SetQuick(std::size_t channel, bool quick) {
  const ScopeLock guard(lock_);
  if (channel < channels_.size() && channels_[channel].quick != quick) {
    channels_[channel].quick = quick;
    BeginEpoch(Now());
  }
}

int PlaybackTransport::Speed() {
  const ScopeLock guard(lock_);
  return speed_;
}

bool PlaybackTransport::IsStep() {
  const ScopeLock guard(lock_);
  return stepForward_ != 0 || stepBackward_ != 0;
}

bool PlaybackTransport::IsSlow() {
  const ScopeLock guard(lock_);
  return slow_;
}

std::int64_t PlaybackTransport::Target() {
  const ScopeLock guard(lock_);
  return target_;
}

std::int64_t PlaybackTransport::Position() {
  const ScopeLock guard(lock_);
  return Now();
}

bool PlaybackTransport::AllAtEnd() {
  const ScopeLock guard(lock_);
  if (held_) {
    return false;
  }
  bool any = false;
  for (const Channel& channel : channels_) {
    if (channel.displayed && !Ended(channel)) {
      return false;
    }
    any = any || channel.displayed;
  }
  return any;
}

bool PlaybackTransport::IsAtEnd(std::size_t index) {
  const ScopeLock guard(lock_);
  return index < channels_.size() && !held_ && Ended(channels_[index]);
}

// A paused channel is at its end with its last picture; a playing one shows that for its time.
bool PlaybackTransport::Ended(const Channel& channel) const {
  return channel.standing.coverage == Coverage::kEnd || (speed_ == 0 && channel.standing.last);
}

std::uint64_t PlaybackTransport::Epoch() {
  const ScopeLock guard(lock_);
  return epoch_;
}

std::int64_t PlaybackTransport::MaximumSkew() {
  const ScopeLock guard(lock_);
  return skew_;
}

PLAYBACK_CHANNEL_STATE PlaybackTransport::StateOf(std::size_t index) {
  const ScopeLock guard(lock_);
  if (index >= channels_.size() || !channels_[index].displayed) {
    return PLAYBACK_CHANNEL_OFF;
  }
  switch (channels_[index].standing.coverage) {
    case Coverage::kGap:
      return PLAYBACK_CHANNEL_GAP;
    case Coverage::kEnd:
      return PLAYBACK_CHANNEL_END;
    case Coverage::kCovered:
      return channels_[index].pictures->ShownTime() != 0 ? PLAYBACK_CHANNEL_SHOWN
                                                         : PLAYBACK_CHANNEL_SEEKING;
    default:
      return PLAYBACK_CHANNEL_SEEKING;
  }
}

bool PlaybackTransport::WaitShown(int milliseconds) {
  ScopeLock guard(lock_);
  return changed_.wait_for(lock_, std::chrono::milliseconds(std::max(milliseconds, 0)),
                           [this]() CMS_NO_THREAD_SAFETY_ANALYSIS { return quit_ || !held_; }) &&
         !quit_;
}

// --- The channels -------------------------------------------------------------------------------

bool PlaybackTransport::KeysOnly() const {
  return speed_ != 0 && RateOfSpeed() >= kKeysOnlyRate;
}

PlaybackTransport::View PlaybackTransport::Look(std::size_t index) {
  const ScopeLock guard(lock_);
  View view;
  view.quit = quit_;
  if (index >= channels_.size()) {
    return view;
  }
  if (held_ && TickMilliseconds() - heldSince_ >= kLongestHold) {
    ReleaseIfReady(true);
  }
  const Channel& channel = channels_[index];
  view.displayed = channel.displayed;
  view.held = held_;
  view.running = speed_ != 0 && !atEnd_;
  view.atEnd = atEnd_;
  view.forward = forward_;
  view.keysOnly = channel.quick || KeysOnly();
  view.working = working_;
  view.displayedCount = static_cast<int>(
      std::ranges::count_if(channels_, [](const Channel& each) { return each.displayed; }));
  view.steps = stepper_ == index ? steps_ : 0;
  view.rate = RateOfSpeed();
  view.position = held_ ? anchorPosition_ : ShowDueAt();
  view.epoch = epoch_;
  view.version = version_;
  return view;
}

void PlaybackTransport::Wait(std::size_t index, std::uint64_t version, unsigned imageId,
                             int milliseconds) {
  ScopeLock guard(lock_);
  const Channel& channel = channels_[index];
  const auto changed = [&]() CMS_NO_THREAD_SAFETY_ANALYSIS {
    return quit_ || version_ != version || channel.pictures->ImageId() != imageId;
  };
  if (held_ && (milliseconds < 0 || milliseconds > static_cast<int>(kLongestHold))) {
    milliseconds = static_cast<int>(kLongestHold);
  }
  --working_;
  if (milliseconds < 0) {
    channel.changed->wait(lock_, changed);
  } else {
    channel.changed->wait_for(lock_, std::chrono::milliseconds(milliseconds), changed);
  }
  ++working_;
}

void PlaybackTransport::Prepared(std::size_t index, std::uint64_t epoch, const Standing& standing) {
  const ScopeLock guard(lock_);
  if (epoch != epoch_ || index >= channels_.size() || !held_) {
    return;
  }
  channels_[index].prepared = epoch;
  channels_[index].standing = standing;
  ReleaseIfReady(false);
}

// Shows what the channels have prepared. Where none has a recording, the clock first goes to where
// one has, and all prepare anew.
void PlaybackTransport::ReleaseIfReady(bool late) {
  if (steps_ != 0) {
    if (late) {
      PassStepOn();
    }
    return;
  }
  bool ready = true;
  for (const Channel& channel : channels_) {
    ready = ready && (!channel.displayed || channel.prepared == epoch_);
  }
  if (!ready && !late) {
    return;
  }
  if (const auto edge = CommonEdge(); ready && edge && *edge != anchorPosition_) {
    BeginEpoch(*edge);
    return;
  }
  for (Channel& channel : channels_) {
    if (channel.displayed && channel.prepared != epoch_) {
      channel.pictures->Blank();
    }
  }
  held_ = false;
  Anchor(anchorPosition_);
  if (std::exchange(seeking_, false)) {
    target_ = kPlaybackNoTargetTime;
  }
  ShowDueAt();
  Changed();
}

// Where the clock goes when no displayed channel has a recording at its time.
std::optional<std::int64_t> PlaybackTransport::CommonEdge() const {
  std::optional<std::int64_t> gap;
  std::optional<std::int64_t> end;
  for (const Channel& channel : channels_) {
    if (!channel.displayed) {
      continue;
    }
    switch (channel.standing.coverage) {
      case Coverage::kGap:
        gap = !gap ? channel.standing.edge
                   : (forward_ ? std::min(*gap, channel.standing.edge)
                               : std::max(*gap, channel.standing.edge));
        break;
      case Coverage::kEnd:
        end = !end ? channel.standing.edge
                   : (forward_ ? std::max(*end, channel.standing.edge)
                               : std::min(*end, channel.standing.edge));
        break;
      default:
        return std::nullopt;
    }
  }
  return gap ? gap : end;
}

bool PlaybackTransport::AllEnded() const {
  bool any = false;
  for (const Channel& channel : channels_) {
    if (channel.displayed && channel.standing.coverage != Coverage::kEnd) {
      return false;
    }
    any = any || channel.displayed;
  }
  return any;
}

bool PlaybackTransport::Report(std::size_t index, std::uint64_t epoch, const Standing& standing) {
  const ScopeLock guard(lock_);
  if (epoch != epoch_ || index >= channels_.size() || held_) {
    return false;
  }
  channels_[index].standing = standing;
  if (speed_ == 0) {
    return false;
  }
  if (atEnd_) {
    if (AllEnded()) {
      return false;
    }
    atEnd_ = false;  // the recording has grown
    Anchor(anchorPosition_);
    Changed();
    return true;
  }
  const auto common = CommonEdge();
  if (!common) {
    return false;
  }
  if (AllEnded()) {
    Anchor(*common);
    atEnd_ = true;
    Changed();
    return true;
  }
  // The others' reports may be older than the clock: never back.
  const std::int64_t now = Now();
  if (forward_ ? *common <= now : *common >= now) {
    return false;
  }
  Anchor(*common);
  Changed();
  return true;
}

// The stepping channel has no picture there, or its disk does not answer: another one steps. False
// when there is none.
bool PlaybackTransport::PassStepOn() {
  if (stepper_ < channels_.size()) {
    channels_[stepper_].stepTried = true;
  }
  for (std::size_t i = 0; i < channels_.size(); ++i) {
    if (channels_[i].displayed && !channels_[i].stepTried) {
      stepper_ = i;
      heldSince_ = TickMilliseconds();
      Changed();
      return true;
    }
  }
  return false;
}

void PlaybackTransport::ResolveStep(std::size_t index, std::uint64_t epoch,
                                    std::optional<std::int64_t> time) {
  const ScopeLock guard(lock_);
  if (epoch != epoch_ || index != stepper_ || steps_ == 0) {
    return;
  }
  if (!time && PassStepOn()) {
    return;
  }
  steps_ = 0;
  BeginEpoch(time.value_or(anchorPosition_));
}

void PlaybackTransport::ShowDue() {
  const ScopeLock guard(lock_);
  if (!held_) {
    ShowDueAt();
  }
}

// The time on the clock, at which it was.
std::int64_t PlaybackTransport::ShowDueAt() {
  const std::int64_t now = Now();
  const bool measures = !KeysOnly();
  const bool audible = speed_ == 1 && !slow_;
  for (Channel& channel : channels_) {
    if (!channel.displayed) {
      continue;
    }
    const unsigned before = channel.pictures->ImageId();
    const std::int64_t shown = channel.pictures->ShowDue(now, forward_, audible);
    if (channel.pictures->ImageId() != before) {
      channel.changed->notify_one();
    }
    if (measures && shown != 0 && !channel.quick &&
        channel.standing.coverage == Coverage::kCovered) {
      skew_ = std::max(skew_, std::abs(now - shown));
    }
  }
  return now;
}

}  // namespace cms
