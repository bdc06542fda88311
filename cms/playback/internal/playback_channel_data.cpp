#include "cms/playback/internal/playback_channel_data.h"

#include <pthread.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <ctime>
#include <system_error>
#include <utility>

#include "cms/live/frame_header.h"
#include "cms/runtime/clock.h"

using cms::FrameRef;

namespace {

constexpr int kLongestWait = 500;  // milliseconds, while the clock runs
constexpr std::uint64_t kLookForMore = 500;
constexpr std::size_t kFewStaged = 1;
constexpr double kSmoothing = 0.2;

// Memory that the displayed channels of a controller share.
constexpr std::size_t kStagedBytes = std::size_t{256} << 20;   // pictures that wait for their time
constexpr std::size_t kReverseBytes = std::size_t{512} << 20;  // decoded ones, for playing backward
constexpr std::size_t kMostStagedBytes = std::size_t{32} << 20;   // of a channel
constexpr std::size_t kMostReverseBytes = std::size_t{96} << 20;  // in its two windows

constexpr int kMostMissed = 3;  // pictures in a row, before the next key frame is waited for

// Processor time of this thread.
double ThreadMilliseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) * 1e-6;
}

std::size_t Share(const cms::PlaybackTransport::View& view, std::size_t bytes, std::size_t most) {
  return std::min(most, bytes / static_cast<std::size_t>(std::max(view.displayedCount, 1)));
}

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
      decoder_(*reader_) {}

CCMSPlaybackChannelData::~CCMSPlaybackChannelData() {
  Join();
}

bool CCMSPlaybackChannelData::Start(cms::PlaybackTransport& transport, std::size_t index,
                                    cms::PlaybackSink& sink) {
  transport_ = &transport;
  index_ = index;
  sink_ = &sink;
  try {
    thread_ = std::thread(&CCMSPlaybackChannelData::Run, this);
  } catch (const std::system_error&) {
    return false;
  }
  return true;
}

void CCMSPlaybackChannelData::Join() {
  if (thread_.joinable()) {
    thread_.join();
  }
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
  pthread_setname_np(pthread_self(), "cms-playback");
  while (true) {
    const View view = transport_->Look(index_);
    if (view.quit) {
      return;
    }
    const int wait = Turn(view);
    if (wait != kAtOnce) {
      transport_->Wait(index_, view.version, imageId_, wait);
    }
  }
}

int CCMSPlaybackChannelData::Turn(const View& view) {
  TakeOverShown(view);
  if (!view.displayed) {
    window_.Clear();
    ahead_.Clear();
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
  const Place place = Locate(view);
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
  leapt_ = true;
  lost_.clear();
  lookedForMore_ = 0;
  if (otherWay_.exchange(false, std::memory_order_relaxed)) {
    missed_ = 0;
  }
  if (anew_.exchange(false, std::memory_order_relaxed)) {
    shown_ = {};
    Unstage();
  }
  if (view.forward) {
    window_.Clear();
    ahead_.Clear();
  }
}

void CCMSPlaybackChannelData::ResolveStep(const View& view) {
  FrameRef frame = track_.At(view.position);
  bool moved = false;
  for (int left = view.steps; left != 0; left += left > 0 ? -1 : 1) {
    FrameRef next = left > 0 ? (frame ? track_.After(frame) : track_.First())
                             : (frame ? track_.Before(frame) : FrameRef{});
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
  std::erase_if(lost_, [&](const FrameRef& lost) {
    return view.forward ? lost.Time() <= shown_.Time() : lost.Time() >= shown_.Time();
  });
  const cms::PlaybackReaderStatus status = reader_->Status();
  skippedBytes_.store(status.skippedBytes, std::memory_order_relaxed);
  rebuilt_.store(status.rebuiltIndexes, std::memory_order_relaxed);
  sink_->OnPicture(site_, channel_, shown_.Time());
  if (const auto render = render_.load(std::memory_order_relaxed)) {
    render(nullptr);
  }
  if (stage_.audible && !stage_.audible.Is(heard_)) {
    HandOutAudioUpTo(stage_.audible);
  }
  leapt_ = leapt_ || !stage_.audible.Is(shown_);
}

// --- Where the channel stands -------------------------------------------------------------------

CCMSPlaybackChannelData::Place CCMSPlaybackChannelData::Locate(const View& view) {
  Place place;
  place.current = track_.At(view.position);
  place.covered = place.current && view.position < track_.ValidUntil(place.current);
  place.keysOnly = view.keysOnly;
  if (place.covered && !view.forward && view.running && !view.keysOnly) {
    // Backward, a whole group has to be decoded in the time that it plays.
    const auto& video = place.current.gop->video;
    const std::size_t parts = (video.size() - 1) / PicturesOfWindow(view) + 1;
    const std::size_t frames =  // those of the first parts are decoded again for each later one
        parts * video.size() - PicturesOfWindow(view) * (parts * (parts - 1) / 2);
    const double work = MediaTimeOfFrame(view) * static_cast<double>(frames);
    place.keysOnly =
        video.size() > 1 && work > static_cast<double>(video.back().time - video.front().time);
  }
  if (place.covered) {
    place.wanted = place.keysOnly ? cms::PlaybackTrack::KeyOf(place.current) : place.current;
  }
  return place;
}

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
  if (!asked || !view.forward || (lookedForMore_ != 0 && now - lookedForMore_ < kLookForMore)) {
    return false;
  }
  lookedForMore_ = now;
  if (!reader_->MayGrow() || !reader_->Refresh()) {
    return false;
  }
  end_.store(reader_->EndTime(), std::memory_order_relaxed);
  track_.Forget();
  return true;
}

// --- What to do next ----------------------------------------------------------------------------

// All channels prepare the picture of one position.
int CCMSPlaybackChannelData::Hold(const View& view, const Place& place, const Standing& standing) {
  if (prepared_ == view.epoch) {
    return kForever;
  }
  if (!place.wanted || IsLost(place.wanted)) {
    pictures_->StageNothing();
  } else if (!shown_.Is(place.wanted)) {
    if (!Prepare(view, place)) {
      return kAtOnce;
    }
  } else if (!stage_.first.Is(Following(view, place.wanted, place.keysOnly))) {
    Unstage();
  }
  // Backward, the pictures that follow come all at once: the clock waits for them, too.
  if (!view.forward && view.running && place.wanted && !place.keysOnly &&
      !ReadyWindow(view, place.wanted)) {
    return kAtOnce;
  }
  prepared_ = view.epoch;
  reported_ = standing;
  transport_->Prepared(index_, view.epoch, standing);
  return kAtOnce;
}

// One piece of the way to the wanted picture; true when it is the next to be shown.
bool CCMSPlaybackChannelData::Prepare(const View& view, const Place& place) {
  if (stage_.first.Is(place.wanted)) {
    return true;
  }
  if (stage_.first) {
    Unstage();
  }
  Work(view, place.wanted, place.keysOnly);
  return false;
}

// The clock stands: the picture may still be missing when it came too late for the others.
int CCMSPlaybackChannelData::Rest(const View& view, const Place& place) {
  if (place.wanted && !IsDone(place.wanted)) {
    Prepare(view, place);
    return kAtOnce;
  }
  return view.atEnd && view.forward && reader_->MayGrow() ? kLongestWait : kForever;
}

// Some pictures are made ready in a row, and then none until they are nearly used up.
int CCMSPlaybackChannelData::Play(const View& view, const Place& place) {
  filling_ = (filling_ || stage_.staged <= kFewStaged) &&
             !pictures_->IsFull(Share(view, kStagedBytes, kMostStagedBytes));
  if (filling_) {
    if (target_ && IsOvertaken(view, place)) {
      target_ = {};
    }
    if (!target_) {
      target_ = Aim(view, place);
    }
    if (target_) {
      if (Work(view, target_, place.keysOnly)) {
        target_ = {};
      }
      return kAtOnce;
    }
  }
  if (!view.forward && !place.keysOnly && PrefetchOne(view)) {
    return kAtOnce;
  }
  return UntilDue(view, place);
}

// Up to when a frame is shown among those that are shown at all.
std::int64_t CCMSPlaybackChannelData::EndOf(const FrameRef& frame, bool keysOnly) {
  return track_.ValidUntil(keysOnly ? FrameRef{frame.gop, frame.gop->video.size() - 1} : frame);
}

FrameRef CCMSPlaybackChannelData::Following(const View& view, FrameRef frame, bool keysOnly) {
  do {
    if (view.forward) {
      frame = keysOnly ? track_.KeyAfter(frame) : track_.After(frame);
    } else {
      frame = keysOnly ? track_.KeyBefore(frame) : track_.Before(frame);
    }
  } while (frame && IsLost(frame));
  return frame;
}

std::size_t CCMSPlaybackChannelData::PicturesOfWindow(const View& view) const {
  const std::size_t bytes = Share(view, kReverseBytes, kMostReverseBytes) / 2;
  return std::max<std::size_t>(2, bytes / std::max<std::size_t>(pictureBytes_, 1));
}

// How far the clock goes while a frame is decoded: the channels that work share the processors.
double CCMSPlaybackChannelData::MediaTimeOfFrame(const View& view) const {
  static const double processors = std::max(1U, std::thread::hardware_concurrency());
  return decodeMs_ * std::max(1.0, view.working / processors) * view.rate;
}

// The picture to make ready: the wanted one if it is missing, else the one that follows.
FrameRef CCMSPlaybackChannelData::Aim(const View& view, const Place& place) {
  if (stage_.last) {
    return Following(view, stage_.last, place.keysOnly);
  }
  if (!place.wanted) {  // in a gap: the first picture behind it
    FrameRef next = place.current;
    if (view.forward) {
      next = place.current ? track_.After(place.current) : track_.First();
    }
    return next && IsLost(next) ? Following(view, next, place.keysOnly) : next;
  }
  if (IsDone(place.wanted)) {
    return Following(view, place.wanted, place.keysOnly);
  }
  // Only work that came too late tells that the decoder is behind.
  return view.forward && !place.keysOnly && missed_ > 0 ? AimInTime(view, place) : place.wanted;
}

// Behind the clock: the first frame that can still be decoded while it is the one to show, else the
// next key frame, which costs nothing before it.
FrameRef CCMSPlaybackChannelData::AimInTime(const View& view, const Place& place) {
  const double cost = MediaTimeOfFrame(view);
  FrameRef target = place.current;
  for (; missed_ < kMostMissed && target.index < target.gop->video.size(); ++target.index) {
    const double ready =
        static_cast<double>(view.position) + cost * static_cast<double>(decoder_.StepsTo(target));
    if (ready < static_cast<double>(track_.ValidUntil(target)) && !IsLost(target)) {
      return target;
    }
  }
  FrameRef key = track_.KeyAfter(place.current);
  missed_ = 0;  // a new beginning
  return key && !IsLost(key) ? key : place.current;
}

// Whether the clock has passed the picture that is being prepared.
bool CCMSPlaybackChannelData::IsOvertaken(const View& view, const Place& place) {
  if (view.forward && !place.keysOnly && view.position >= EndOf(target_, false)) {
    ++missed_;
    return true;
  }
  return place.current && !(target_.Place() == place.current.Place()) &&
         (target_.Time() < place.current.Time()) == view.forward;
}

int CCMSPlaybackChannelData::UntilDue(const View& view, const Place& place) {
  std::int64_t media = kLongestWait * 32;
  if (place.covered) {  // whatever comes next, this ends
    media = view.forward ? track_.ValidUntil(place.current) - view.position
                         : view.position - place.current.Time() + 1;
  }
  if (stage_.first) {
    media = std::min(media, view.forward ? stage_.first.Time() - view.position
                                         : view.position - stage_.firstEnd + 1);
  }
  const double wait = std::ceil(static_cast<double>(media) / view.rate);
  return std::clamp(static_cast<int>(std::min(wait, 1e6)), 1, kLongestWait);
}

// --- Decoding -----------------------------------------------------------------------------------

bool CCMSPlaybackChannelData::IsLost(const FrameRef& frame) const {
  return std::any_of(lost_.begin(), lost_.end(),
                     [&frame](const FrameRef& lost) { return lost.Is(frame); });
}

bool CCMSPlaybackChannelData::Work(const View& view, const FrameRef& target, bool keysOnly) {
  if (!view.forward && !keysOnly) {
    return WorkBackward(view, target);
  }
  if (const FrameRef next = decoder_.NextTowards(target)) {
    if (!DecodeOne(view, next, target)) {
      return false;
    }
  }
  const bool reached = decoder_.Reach(target, keysOnly);
  lostCount_.store(decoder_.Lost(), std::memory_order_relaxed);
  if (!reached) {
    return false;
  }
  Stage(view, target, keysOnly, decoder_.HasPicture(target) ? &decoder_.Picture() : nullptr);
  return true;
}

// One piece of the way to all of the window that ends with or holds `target`; true when it is
// there.
bool CCMSPlaybackChannelData::ReadyWindow(const View& view, const FrameRef& target) {
  if (!window_.Holds(target)) {
    if (ahead_.Holds(target)) {
      std::swap(window_, ahead_);
    } else {
      window_.Begin(target, PicturesOfWindow(view));
    }
    ahead_.Clear();
  }
  if (window_.Next()) {
    DecodeInto(window_, view, target);
    return false;
  }
  return true;
}

bool CCMSPlaybackChannelData::WorkBackward(const View& view, const FrameRef& target) {
  if (!ReadyWindow(view, target)) {
    return false;
  }
  Stage(view, target, false, window_.Picture(target));
  return true;
}

// One frame of a window; true when there was one to decode.
bool CCMSPlaybackChannelData::DecodeInto(cms::ReverseWindow& window, const View& view,
                                         const FrameRef& target) {
  const FrameRef wanted = window.Next();
  if (!wanted) {
    return false;
  }
  if (const FrameRef next = decoder_.NextTowards(wanted)) {
    if (!DecodeOne(view, next, target)) {
      return true;
    }
  }
  window.Take(decoder_);
  while (window.Next() && decoder_.Reach(window.Next())) {
    window.Take(decoder_);
  }
  lostCount_.store(decoder_.Lost(), std::memory_order_relaxed);
  return true;
}

bool CCMSPlaybackChannelData::PrefetchOne(const View& view) {
  if (window_.Next() || !window_.Low()) {
    return false;
  }
  const FrameRef high = track_.Before(window_.Low());
  if (!high) {
    return false;
  }
  if (!ahead_.Ends(high)) {
    ahead_.Begin(high, PicturesOfWindow(view));
  }
  return DecodeInto(ahead_, view, high);
}

// False when the way has become another one.
bool CCMSPlaybackChannelData::DecodeOne(const View& view, const FrameRef& frame,
                                        const FrameRef& target) {
  const double start = ThreadMilliseconds();
  const auto bytes = decoder_.Read(frame);
  _MULTI_PB_GET_FRAME_CALL_BACK_PARAM parameter;
  parameter.site = site_;
  parameter.channel = channel_;
  parameter.time = frame.Time();
  parameter.frameType = frame.Frame().type;
  parameter.serial = view.epoch;
  parameter.wantedTime = target.Time();
  if (sink_->GetFrameCallBack(bytes.data(), static_cast<long>(bytes.size()), &parameter) == 0) {
    return false;
  }
  if (frame.Frame().area >= sizeof(DRVFrameHeader) && !bytes.empty()) {
    DRVFrameHeader header;
    std::memcpy(&header, bytes.data(), sizeof(header));
    otherRate_.store(static_cast<int>(header.flags[0] & cms::kFlagOtherFrameRate),
                     std::memory_order_relaxed);
  }
  decoder_.Decode(frame);
  if (const auto pixels = decoder_.Pixels()) {
    pictureBytes_ = pixels * 3 / 2;  // 4:2:0 as a rule; the window's memory is meant roughly
  }
  videoType_.store(decoder_.VideoType(), std::memory_order_relaxed);
  decodeMs_ += kSmoothing * (ThreadMilliseconds() - start - decodeMs_);
  return true;
}

// A picture that comes when its turn is over is given up, except one now and then.
void CCMSPlaybackChannelData::Stage(const View& view, const FrameRef& target, bool keysOnly,
                                    const AVFrame* picture) {
  cms::PictureStore::Picture* const converted =
      picture != nullptr ? pictures_->Convert(*picture) : nullptr;
  if (converted == nullptr) {
    lost_.push_back(target);
    return;
  }
  const std::int64_t end = EndOf(target, keysOnly);
  bool late = false;
  if (view.running && !view.held) {
    const std::int64_t now = transport_->Position();
    late = view.forward ? now >= end : now < target.Time();
    missed_ = late ? missed_ + 1 : 0;
  }
  if (late && missed_ < kMostMissed) {
    return;
  }
  pictures_->Stage(converted, target, end, late);
}

// --- Audio --------------------------------------------------------------------------------------

// What lies between the pictures: with each picture the blocks that follow it in the recording.
void CCMSPlaybackChannelData::HandOutAudioUpTo(const FrameRef& shown) {
  FrameRef from = std::exchange(heard_, shown);
  if (std::exchange(leapt_, false)) {
    from = {};
  }
  if (!sink_->WantsAudio(site_, channel_)) {
    return;
  }
  std::size_t first = shown.index;
  if (from && from.Place() == shown.Place()) {
    first = std::min(from.index + 1, shown.index);
  } else if (from && track_.KeyAfter(from).Is(cms::PlaybackTrack::KeyOf(shown))) {
    HandOutAudio(*from.gop, from.index + 1, from.gop->video.size());
    first = 0;
  }
  HandOutAudio(*shown.gop, first, shown.index + 1);
}

void CCMSPlaybackChannelData::HandOutAudio(const cms::PlaybackGop& gop, std::size_t from,
                                           std::size_t to) {
  for (const cms::PlaybackGop::Audio& each : gop.audio) {
    if (each.after < from || each.after >= to) {
      continue;
    }
    audio_.resize(each.frame.area + each.frame.payload);
    if (audio_.size() <= sizeof(DRVFrameHeader) ||
        reader_->Read(gop.place, each.frame, audio_) < audio_.size()) {
      continue;
    }
    cms::AudioFormatDescriptor format;
    std::memcpy(&format, audio_.data() + sizeof(DRVFrameHeader) / 2, sizeof(format));
    _MULTI_PB_AUDIO_BLOCK block;
    block.site = site_;
    block.channel = channel_;
    block.time = each.frame.time;
    block.codecId = format.codecId;
    block.sampleRate = format.sampleRate;
    block.channels = format.channels;
    block.bitsPerSample = format.bitsPerSample;
    block.data = audio_.data() + each.frame.area;
    block.size = static_cast<long>(each.frame.payload);
    sink_->OnAudio(block);
  }
}
