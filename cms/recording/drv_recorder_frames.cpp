// How a frame of a running recording becomes bytes of the files.
#include <algorithm>
#include <array>

#include "cms/live/media/frame_header.h"
#include "cms/recording/internal/picture_format.h"
#include "cms/recording/internal/recorder_state.h"
#include "cms/recording/internal/recording_file.h"
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
  const std::uint64_t tick =
      frame.arrivalUs != 0 ? frame.arrivalUs / 1000 : cms::TickMilliseconds();
  const Frames::Shown& before = frames_->ShownOf(FileNumber(), frame.channel);
  const bool clockSet = live && before.IsBehindStep(frame.seconds, tick);
  const bool otherFormat =
      live && frame.key && format != 0 && before.format != 0 && format != before.format;
  if (clockSet || otherFormat) {
    SetForceChangeFile();
  }
  DrvIdx record{};
  record.channel = frame.channel;
  record.state = kinds;
  record.milliseconds = frames_->Milliseconds(frame);
  record.frameType = frame.fields.FrameType();
  record.secondState = marks.State();
  SetDrvIdx(record);
  if (!AddData(blocks, frame.key ? cms::kBeginsFile : cms::kDependent)) {
    return false;
  }
  status_.AddVideo({cms::TickMilliseconds(), cms::WallSeconds()});
  if (frame.key || !frames_->param.indexKeyFramesOnly) {
    WriteDrvIdx();
  }
  frames_->hasVideo = true;
  if (!live) {
    CLFXDRVWriter::SetRecordTime(frame.seconds);
    return true;
  }
  // Behind a clock that was set, and until the next file begins, the file has a record more; of a
  // small step back the record keeps its times: they would shrink to those behind it.
  Frames::Shown& shown = frames_->ShownOf(FileNumber(), frame.channel);
  if (clockSet) {
    EndEventsBefore(frame.seconds, frame.channel);
  }
  const bool anew = clockSet && BeginRecordSpan(frame.seconds);
  shown.seconds = anew ? frame.seconds : std::max(frame.seconds, shown.seconds);
  shown.tick = tick;
  SetEventTime(frame.seconds, frame.channel);
  CLFXDRVWriter::SetRecordTime(shown.seconds);
  shown.format = format != 0 ? format : shown.format;
  return true;
}

// An event goes on behind a clock that was set as another one: between its times lies what nobody
// recorded.
void FX_DRVRecorder::EndEventsBefore(std::int64_t time, unsigned channel) {
  for (const cms::RecordKind kind : cms::kEventKinds) {
    Frames::Event& event = frames_->EventOf(kind, channel);
    if (event.start != 0 && !cms::TimeSpan{event.start, event.end}.IsNear(time)) {
      PassOnEvent(kind, channel);
      event.start = 0;
      event.end = 0;
      event.preAlarm = 0;
    }
  }
}

void FX_DRVRecorder::SetSoundAlone(bool alone) {
  ScopeLock hold(lock_);
  frames_->soundAlone = alone;
}

// Sound is found by the times of the video that it belongs to, or by its own when there is none.
bool FX_DRVRecorder::RecordAudioBlocks(std::span<const std::span<const std::uint8_t>> blocks,
                                       std::uint32_t seconds) {
  const bool alone = frames_->soundAlone;
  if (!AddData(blocks, alone ? cms::kSoundAlone : cms::kDependent)) {
    return false;
  }
  if (alone) {
    status_.AddVideo({cms::TickMilliseconds(), cms::WallSeconds()});
  }
  frames_->ShownOf(FileNumber(), 0);
  if (!frames_->hasVideo) {
    CLFXDRVWriter::SetRecordTime(seconds);
  }
  return true;
}

FX_DRVRecorder::Frames::Shown& FX_DRVRecorder::Frames::ShownOf(std::uint64_t file,
                                                               unsigned channel) {
  if (shownFile != file) {
    shownFile = file;
    shown = {};
    hasVideo = false;
  }
  return shown[channel];
}

// Of a header that tells its second alone: within it, the time since its first frame. Never the
// same twice while the second has milliseconds left. A frame that comes later than its second, and
// whose arrival is not known, follows the one before it.
std::uint64_t FX_DRVRecorder::Frames::Milliseconds(const cms::FrameView& frame) {
  const std::uint64_t tick =
      frame.arrivalUs != 0 ? frame.arrivalUs / 1000 : cms::TickMilliseconds();
  const bool told = frame.timeUs != 0;
  const auto within = static_cast<std::uint64_t>(frame.timeUs / 1000 % 1000);
  if (frame.seconds != second) {
    second = frame.seconds;
    secondTick = tick;
    millisecond = told ? within : 0;
  } else {
    const std::uint64_t since = told ? within : tick > secondTick ? tick - secondTick : 0;
    const std::uint64_t next = millisecond + 1;
    millisecond = std::min<std::uint64_t>(since < 1000 ? std::max(next, since) : next, 999);
  }
  return std::uint64_t{frame.seconds} * 1000 + millisecond;
}

}  // namespace FX
