// How a frame of a running recording becomes bytes of the files.
#include <algorithm>
#include <array>

#include "cms/live/media/frame_header.h"
#include "cms/recording/drv_recorder.h"
#include "cms/recording/event_marks.h"
#include "cms/recording/internal/picture_format.h"
#include "cms/runtime/clock.h"

namespace FX {
namespace {

std::span<const std::uint8_t> BlockOf(const void* data, int size) {
  return {static_cast<const std::uint8_t*>(data), static_cast<std::size_t>(std::max(size, 0))};
}

}  // namespace

bool FX_DRVRecorder::RecordVideoFrame(const void* header, int headerSize, const void* data,
                                      int size, unsigned channel, bool markDeviceEvent) {
  return RecordFrame(BlockOf(header, headerSize), BlockOf(data, size), channel,
                     markDeviceEvent ? FrameUse::kMarked : FrameUse::kPlain, 0);
}

bool FX_DRVRecorder::RecordAudioFrame(const void* header, int headerSize, const void* data,
                                      int size, unsigned channel) {
  return RecordFrame(BlockOf(header, headerSize), BlockOf(data, size), channel, FrameUse::kPlain,
                     0);
}

bool FX_DRVRecorder::RecordPreAlarmFrame(const void* header, int headerSize, const void* data,
                                         int size, unsigned channel, std::uint64_t arrivalTick) {
  return RecordFrame(BlockOf(header, headerSize), BlockOf(data, size), channel,
                     FrameUse::kBeforeEvent, arrivalTick);
}

bool FX_DRVRecorder::RecordFrame(std::span<const std::uint8_t> area,
                                 std::span<const std::uint8_t> payload, unsigned channel,
                                 FrameUse use, std::uint64_t arrivalTick) {
  cms::ChannelSet::Check(channel);
  // Stopping clears the running bit before it closes the files under this lock: no frame opens them
  // again behind it.
  ScopeLock hold(lock_);
  const unsigned kinds = RunningKinds(channel);
  if (kinds == 0) {
    return false;
  }
  if (area.size() < cms::kDrvHeaderSize) {
    ++status_.refusedFrames;
    return false;
  }
  std::array<std::uint8_t, cms::kDrvHeaderSize> sealed;
  std::copy_n(area.begin(), sealed.size(), sealed.begin());
  if (use == FrameUse::kMarked) {
    cms::SetDeviceEventMark(sealed, channel);
  }
  cms::SealFrameHeader(sealed);
  const cms::DrvHeader header(sealed);
  // A reader steps from frame to frame by these numbers.
  if (!header.HasSync() || header.AreaLength() != area.size() ||
      header.PayloadLength() != payload.size()) {
    ++status_.refusedFrames;
    return false;
  }
  const std::array blocks{std::span<const std::uint8_t>(sealed), area.subspan(cms::kDrvHeaderSize),
                          payload};
  if (header.IsAudio()) {
    return RecordAudioBlocks(blocks, header.Seconds());
  }
  const cms::EventMarks marks = cms::ReadEventMarks(header, channel);
  const bool live = use != FrameUse::kBeforeEvent;
  const std::uint64_t format =
      live && header.IsKeyFrame() ? cms::PictureFormatOf(area, payload) : 0;
  if (const Shown& shown = ShownOf(channel);
      live && header.IsKeyFrame() &&
      (header.Seconds() < shown.seconds ||
       (format != 0 && shown.format != 0 && format != shown.format))) {
    SetForceChangeFile();
  }
  DrvIdx record{};
  record.channel = channel;
  record.state = kinds;
  record.milliseconds = Milliseconds(header.Seconds(), arrivalTick);
  record.frame_type = header.FrameType();
  record.second_state =
      (marks.deviceEvent ? 1u : 0u) | (marks.alarm ? 2u : 0u) | (marks.videoLoss ? 4u : 0u);
  SetDrvIdx(record);
  if (!RecordBlocks(blocks, header.IsKeyFrame() ? cms::kBeginsFile : cms::kDependent)) {
    return false;
  }
  status_.AddVideo({cms::TickMilliseconds(), cms::WallSeconds()});
  if (header.IsKeyFrame() || !param_.indexKeyFramesOnly) {
    WriteDrvIdx();
  }
  hasVideo_ = true;
  if (!live) {
    CLFXDRVWriter::SetRecordTime(header.Seconds());
    return true;
  }
  // Behind a clock that was set back, and until the next file begins, the record keeps its times:
  // they would shrink to those behind the step.
  Shown& shown = ShownOf(channel);
  const std::int64_t fileTime = std::max(header.Seconds(), shown.seconds);
  SetEventTime(header.Seconds(), channel);
  CLFXDRVWriter::SetRecordTime(fileTime);
  shown.seconds = std::max(header.Seconds(), shown.seconds);
  shown.format = format != 0 ? format : shown.format;
  return true;
}

// Sound is found by the times of the video that it belongs to, or by its own when there is none.
bool FX_DRVRecorder::RecordAudioBlocks(std::span<const std::span<const std::uint8_t>> blocks,
                                       std::uint32_t seconds) {
  if (!RecordBlocks(blocks, cms::kDependent)) {
    return false;
  }
  ShownOf(0);
  if (!hasVideo_) {
    CLFXDRVWriter::SetRecordTime(seconds);
  }
  return true;
}

FX_DRVRecorder::Shown& FX_DRVRecorder::ShownOf(unsigned channel) {
  if (shownFile_ != FileNumber()) {
    shownFile_ = FileNumber();
    shown_ = {};
    hasVideo_ = false;
  }
  return shown_[channel];
}

// Header times are whole seconds: within one, the time since its first frame, and never the same
// twice while the second has milliseconds left. A frame that comes later than its second, and whose
// arrival is not known, follows the one before it.
std::uint64_t FX_DRVRecorder::Milliseconds(std::uint32_t seconds, std::uint64_t arrivalTick) {
  const std::uint64_t tick = arrivalTick != 0 ? arrivalTick : cms::TickMilliseconds();
  if (seconds != second_) {
    second_ = seconds;
    secondTick_ = tick;
    millisecond_ = 0;
  } else {
    const std::uint64_t since = tick > secondTick_ ? tick - secondTick_ : 0;
    const std::uint64_t next = millisecond_ + 1;
    millisecond_ = std::min<std::uint64_t>(since < 1000 ? std::max(next, since) : next, 999);
  }
  return std::uint64_t{seconds} * 1000 + millisecond_;
}

}  // namespace FX
