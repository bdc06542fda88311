// How a frame of a running recording becomes bytes of the files.
#include <algorithm>
#include <array>

#include "cms/live/media/frame_header.h"
#include "cms/recording/drv_recorder.h"
#include "cms/recording/internal/picture_format.h"
#include "cms/runtime/clock.h"

namespace FX {

bool FX_DRVRecorder::RecordVideoFrame(const void* header, int headerSize, const void* data,
                                      int size, unsigned channel, bool markDeviceEvent) {
  return RecordFrame(cms::FrameOf(header, headerSize, data, size, channel, 0),
                     markDeviceEvent ? FrameUse::kMarked : FrameUse::kPlain);
}

bool FX_DRVRecorder::RecordAudioFrame(const void* header, int headerSize, const void* data,
                                      int size, unsigned channel) {
  return RecordFrame(cms::FrameOf(header, headerSize, data, size, channel, 0), FrameUse::kPlain);
}

bool FX_DRVRecorder::RecordPreAlarmFrame(const void* header, int headerSize, const void* data,
                                         int size, unsigned channel, std::uint64_t arrivalTick) {
  return RecordFrame(cms::FrameOf(header, headerSize, data, size, channel, arrivalTick * 1000),
                     FrameUse::kBeforeEvent);
}

bool FX_DRVRecorder::RecordFrame(const cms::FrameView& frame, FrameUse use) {
  cms::ChannelSet::Check(frame.channel);
  // Stopping clears the running bit before it closes the files under this lock: no frame opens them
  // again behind it.
  ScopeLock hold(lock_);
  const unsigned kinds = RunningKinds(frame.channel);
  if (kinds == 0) {
    return false;
  }
  // A reader steps from frame to frame by these numbers.
  if (!frame.fields.HasSync() || frame.fields.AreaLength() != frame.header.size() ||
      frame.fields.PayloadLength() != frame.payload.size()) {
    ++status_.refusedFrames;
    return false;
  }
  std::array<std::uint8_t, cms::kDrvHeaderSize> sealed;
  std::copy_n(frame.header.begin(), sealed.size(), sealed.begin());
  cms::EventMarks marks = frame.marks;
  if (use == FrameUse::kMarked && cms::SetDeviceEventMark(sealed, frame.channel)) {
    marks.deviceEvent = true;
  }
  cms::SealFrameHeader(sealed);
  const std::array blocks{std::span<const std::uint8_t>(sealed),
                          frame.header.subspan(cms::kDrvHeaderSize), frame.payload};
  if (frame.audio) {
    return RecordAudioBlocks(blocks, frame.seconds);
  }
  const bool live = use != FrameUse::kBeforeEvent;
  const std::uint64_t format =
      live && frame.key ? cms::PictureFormatOf(frame.header, frame.payload) : 0;
  if (const Shown& shown = ShownOf(frame.channel);
      live && frame.key &&
      (frame.seconds < shown.seconds ||
       (format != 0 && shown.format != 0 && format != shown.format))) {
    SetForceChangeFile();
  }
  DrvIdx record{};
  record.channel = frame.channel;
  record.state = kinds;
  record.milliseconds = Milliseconds(frame.seconds, frame.arrivalUs / 1000);
  record.frame_type = frame.fields.FrameType();
  record.second_state = marks.State();
  SetDrvIdx(record);
  if (!RecordBlocks(blocks, frame.key ? cms::kBeginsFile : cms::kDependent)) {
    return false;
  }
  status_.AddVideo({cms::TickMilliseconds(), cms::WallSeconds()});
  if (frame.key || !param_.indexKeyFramesOnly) {
    WriteDrvIdx();
  }
  hasVideo_ = true;
  if (!live) {
    CLFXDRVWriter::SetRecordTime(frame.seconds);
    return true;
  }
  // Behind a clock that was set back, and until the next file begins, the record keeps its times:
  // they would shrink to those behind the step.
  Shown& shown = ShownOf(frame.channel);
  const std::int64_t fileTime = std::max(frame.seconds, shown.seconds);
  SetEventTime(frame.seconds, frame.channel);
  CLFXDRVWriter::SetRecordTime(fileTime);
  shown.seconds = std::max(frame.seconds, shown.seconds);
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
