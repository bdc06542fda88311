#include "cms/playback/internal/playback_channel_data.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "cms/runtime/clock.h"

using cms::FrameRef;

namespace {

constexpr int kLeastWait = 500;  // milliseconds, between two looks for more

}  // namespace

CCMSPlaybackChannelData::CCMSPlaybackChannelData(unsigned site, unsigned channel,
                                                 std::unique_ptr<cms::PlaybackDataReader> reader)
    : site_(site),
      channel_(channel),
      reader_(std::move(reader)),
      start_(reader_->StartTime()),
      end_(reader_->EndTime()),
      pictures_(std::make_shared<cms::PictureStore>()),
      track_(*reader_),
      plan_(track_, std::max(1U, std::thread::hardware_concurrency())),
      decoder_(*reader_),
      reverse_(decoder_, track_),
      sound_(site, channel, *reader_, track_) {}

CCMSPlaybackChannelData::~CCMSPlaybackChannelData() {
  Join();
}

bool CCMSPlaybackChannelData::Start(cms::PlaybackTransport& transport, std::size_t index,
                                    cms::PlaybackSink& sink) {
  transport_ = &transport;
  index_ = index;
  sink_ = &sink;
  return thread_.Start("cms-playback", [this] { Run(); });
}

void CCMSPlaybackChannelData::Join() {
  thread_.Join();
}

void CCMSPlaybackChannelData::PlayForward(int normalSpeed) {
  if (normalSpeed == 0) {
    otherWay_.store(true, std::memory_order_relaxed);
  }
}

cms::PlaybackReaderStatus CCMSPlaybackChannelData::ReaderStatus() const {
  return {skippedBytes_.load(std::memory_order_relaxed), rebuilt_.load(std::memory_order_relaxed)};
}

void CCMSPlaybackChannelData::Run() {
  while (true) {
    const View view = transport_->Look(index_);
    if (view.quit) {
      return;
    }
    const int wait = Turn(view);
    lostCount_.store(decoder_.Lost(), std::memory_order_relaxed);
    if (wait != kAtOnce) {
      transport_->Wait(index_, view.version, imageId_, wait);
    }
  }
}

int CCMSPlaybackChannelData::Turn(const View& view) {
  TakeOverShown(view);
  if (!view.displayed) {
    reverse_.Clear();
    target_ = shown_ = {};
    Unstage();
    pictures_->Blank();
    return kForever;
  }
  if (view.epoch != epoch_) {
    BeginEpoch(view);
  }
  if (view.steps != 0) {
    ResolveStep(view);
    return kAtOnce;
  }
  const Place place = plan_.Locate(view);
  const Standing standing = Stand(view, place);
  if (standing.last && LookForMore(view)) {
    return kAtOnce;
  }
  if (view.held) {
    return Hold(view, place, standing);
  }
  if (standing != reported_) {
    reported_ = standing;
    if (transport_->Report(index_, view.epoch, standing)) {
      return kAtOnce;
    }
  }
  if (!place.covered && shown_) {
    pictures_->Blank();
    shown_ = {};
  }
  return view.running ? Play(view, place) : Rest(view, place);
}

void CCMSPlaybackChannelData::BeginEpoch(const View& view) {
  epoch_ = view.epoch;
  reported_ = {};
  target_ = {};
  sound_.Leap();
  lookedForMore_ = 0;
  plan_.BeginEpoch(otherWay_.exchange(false, std::memory_order_relaxed));
  if (anew_.exchange(false, std::memory_order_relaxed)) {
    shown_ = {};
    Unstage();
  }
  if (view.forward) {
    reverse_.Clear();
  }
}

void CCMSPlaybackChannelData::ResolveStep(const View& view) {
  FrameRef frame = track_.At(view.position);
  bool shown = track_.Covers(frame, view.position);
  bool moved = false;
  for (int left = view.steps; left != 0; left += left > 0 ? -1 : 1) {
    FrameRef next;
    if (left > 0) {
      next = frame ? track_.After(frame) : track_.First();
    } else if (frame) {
      next = shown ? track_.Before(frame) : frame;  // from a gap back to the picture in front of it
    }
    shown = true;
    if (!next) {
      break;
    }
    frame = std::move(next);
    moved = true;
  }
  transport_->ResolveStep(index_, view.epoch, moved ? std::optional(frame.Time()) : std::nullopt);
}

void CCMSPlaybackChannelData::Unstage() {
  pictures_->Unstage();
  stage_ = pictures_->Stand();
}

// What was shown since the last turn.
void CCMSPlaybackChannelData::TakeOverShown(const View& view) {
  stage_ = pictures_->Stand();
  if (stage_.imageId == imageId_) {
    if (!stage_.shown) {
      shown_ = {};
    }
    return;
  }
  imageId_ = stage_.imageId;
  shown_ = stage_.shown;
  if (!shown_) {
    return;
  }
  plan_.Shown(view, shown_);
  const cms::PlaybackReaderStatus status = reader_->Status();
  skippedBytes_.store(status.skippedBytes, std::memory_order_relaxed);
  rebuilt_.store(status.rebuiltIndexes, std::memory_order_relaxed);
  sink_->OnPicture(site_, channel_, shown_.Time());
  if (const auto render = render_.load(std::memory_order_acquire)) {
    render(nullptr);
  }
  sound_.Shown(shown_, stage_.audible, *sink_);
}

// --- Where the channel stands -------------------------------------------------------------------

CCMSPlaybackChannelData::Standing CCMSPlaybackChannelData::Stand(const View& view,
                                                                 const Place& place) {
  using Coverage = cms::PlaybackTransport::Coverage;
  const FrameRef& current = place.current;
  FrameRef next;
  if (view.forward) {
    next = current ? track_.After(current) : track_.First();
  } else if (current) {
    next = place.covered ? track_.Before(current) : current;
  }
  Standing standing;
  standing.last = !next;
  if (place.covered) {
    standing.coverage = view.atEnd && !next ? Coverage::kEnd : Coverage::kCovered;
    standing.edge = current.Time();
  } else if (next) {
    standing.coverage = Coverage::kGap;
    standing.edge = next.Time();
  } else {
    const FrameRef end = current ? current : track_.First();
    standing.coverage = Coverage::kEnd;
    standing.edge = end ? end.Time() : view.position;
  }
  if (standing.coverage == Coverage::kCovered) {
    standing.edge = 0;  // it would change with every frame
  }
  return standing;
}

// At the end of a recording that may go on: while playing forward, and once for each epoch.
bool CCMSPlaybackChannelData::LookForMore(const View& view) {
  const bool asked = view.running || view.atEnd || view.held;
  const std::uint64_t now = cms::TickMilliseconds();
  if (!asked || !view.forward || (lookedForMore_ != 0 && now - lookedForMore_ < lookAgainAfter_)) {
    return false;
  }
  lookedForMore_ = now;
  const int after = reader_->LookAgainAfter();
  lookAgainAfter_ = static_cast<std::uint64_t>(std::max(after, kLeastWait));
  if (after < 0 || !reader_->Refresh()) {
    return false;
  }
  end_.store(reader_->EndTime(), std::memory_order_relaxed);
  track_.Forget();
  return true;
}
