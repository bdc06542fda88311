// FX_DRVRecorder: the recordings of one site, of five kinds, and the records of its events.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "cms/live/media/frame.h"
#include "cms/recording/drv_writer.h"
#include "cms/recording/record_param.h"
#include "cms/recording/recording_kind.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

namespace FX {

// Set the path and the limits with SetRecParam and the site with SetDevice, then start kinds.
//
// Threads: RecordFrame and its kin on the receiving thread, Flush on the owner's
// clock, everything else on any. The records of events are stored by the disk thread, also while
// somebody holds EventDBLock for long: behind that. Channels are 0 to 31; others throw
// std::out_of_range.
//
// A file also ends in front of the next key frame once the clock has been set (times go back, or 30
// seconds further ahead than has passed), and in front of one of another codec or picture format:
// each file's times rise, and it has one format for each channel. What is left of the group of
// pictures behind the step has a record, and an event a row, of its own.
class CMS_API FX_DRVRecorder : public CLFX::CLFXDRVWriter {
 public:
  FX_DRVRecorder();
  ~FX_DRVRecorder() override;  // as StopRecordAll

  // Opens the files when none are, and the record of an event; nothing changes when the kind runs
  // already. False when no file could be opened: the kind does not run then.
  bool Start(cms::RecordKind kind, unsigned channel);
  // Stores the record of an event. The files are closed when nothing runs any more.
  void Stop(cms::RecordKind kind, unsigned channel);
  void StopRecordAll();
  bool IsRunning(cms::RecordKind kind, unsigned channel) const;
  bool IsRunning(cms::RecordKind kind) const;

  // The recording states: which kinds the client application has enabled. The recorder keeps them
  // for whoever decides on starting.
  bool IsStateOn(cms::RecordKind kind, unsigned channel) const;
  bool IsStateOn(cms::RecordKind kind) const;
  void TurnOnState(cms::RecordKind kind, unsigned channel);
  void TurnOffState(cms::RecordKind kind, unsigned channel);
  void TurnOffAllRecordState();

  // The same by the name of the kind.
  bool StartDeviceEventRecord(unsigned channel) { return Start(kDeviceEvent, channel); }
  bool StartDeviceAlarmRecord(unsigned channel) { return Start(kAlarm, channel); }
  bool StartDeviceVideoLossRecord(unsigned channel) { return Start(kVideoLoss, channel); }
  bool StartInstNormalRecord(unsigned channel) { return Start(kInstant, channel); }
  bool StartScheNormalRecord(unsigned channel) { return Start(kSchedule, channel); }
  void StopDeviceEventRecord(unsigned channel) { Stop(kDeviceEvent, channel); }
  void StopDeviceAlarmRecord(unsigned channel) { Stop(kAlarm, channel); }
  void StopDeviceVideoLossRecord(unsigned channel) { Stop(kVideoLoss, channel); }
  void StopInstNormalRecord(unsigned channel) { Stop(kInstant, channel); }
  void StopScheNormalRecord(unsigned channel) { Stop(kSchedule, channel); }
  bool IsDeviceEventRecording(unsigned channel) const { return IsRunning(kDeviceEvent, channel); }
  bool IsDeviceAlarmRecording(unsigned channel) const { return IsRunning(kAlarm, channel); }
  bool IsDeviceVideoLossRecording(unsigned channel) const { return IsRunning(kVideoLoss, channel); }
  bool IsInstNormalRecording(unsigned channel) const { return IsRunning(kInstant, channel); }
  bool IsScheNormalRecording(unsigned channel) const { return IsRunning(kSchedule, channel); }
  bool IsDeviceEventRecording() const { return IsRunning(kDeviceEvent); }
  bool IsDeviceAlarmRecording() const { return IsRunning(kAlarm); }
  bool IsDeviceVideoLossRecording() const { return IsRunning(kVideoLoss); }
  bool IsInstNormalRecording() const { return IsRunning(kInstant); }
  bool IsScheNormalRecording() const { return IsRunning(kSchedule); }
  bool IsDeviceEventRecStateOn(unsigned channel) const { return IsStateOn(kDeviceEvent, channel); }
  bool IsDeviceAlarmRecStateOn(unsigned channel) const { return IsStateOn(kAlarm, channel); }
  bool IsDeviceVideoLossRecStateOn(unsigned channel) const {
    return IsStateOn(kVideoLoss, channel);
  }
  bool IsInstNormalRecStateOn(unsigned channel) const { return IsStateOn(kInstant, channel); }
  bool IsScheNormalRecStateOn(unsigned channel) const { return IsStateOn(kSchedule, channel); }
  bool IsDeviceEventRecStateOn() const { return IsStateOn(kDeviceEvent); }
  bool IsDeviceAlarmRecStateOn() const { return IsStateOn(kAlarm); }
  bool IsDeviceVideoLossRecStateOn() const { return IsStateOn(kVideoLoss); }
  bool IsInstNormalRecStateOn() const { return IsStateOn(kInstant); }
  bool IsScheNormalRecStateOn() const { return IsStateOn(kSchedule); }
  void TurnOnDeviceEventRecState(unsigned channel) { TurnOnState(kDeviceEvent, channel); }
  void TurnOnDeviceAlarmRecState(unsigned channel) { TurnOnState(kAlarm, channel); }
  void TurnOnDeviceVideoLossRecState(unsigned channel) { TurnOnState(kVideoLoss, channel); }
  void TurnOnInstNormalRecState(unsigned channel) { TurnOnState(kInstant, channel); }
  void TurnOnScheNormalRecState(unsigned channel) { TurnOnState(kSchedule, channel); }
  void TurnOffDeviceEventRecState(unsigned channel) { TurnOffState(kDeviceEvent, channel); }
  void TurnOffDeviceAlarmRecState(unsigned channel) { TurnOffState(kAlarm, channel); }
  void TurnOffDeviceVideoLossRecState(unsigned channel) { TurnOffState(kVideoLoss, channel); }
  void TurnOffInstNormalRecState(unsigned channel) { TurnOffState(kInstant, channel); }
  void TurnOffScheNormalRecState(unsigned channel) { TurnOffState(kSchedule, channel); }

  bool IsRecording() override;  // whether a .drv file is open
  // Whether any kind runs for the channel, and, if asked for, a .drv file is open as well.
  bool IsRecording(unsigned channel, bool requireOpenFile);

  bool GetDeviceEventRecStatus(unsigned channel);  // its recording runs, and a file is open
  bool GetDeviceEventStatus(unsigned channel);     // the record of an event is open

  // For every recorded video frame: widens the records of the channel's running events and of the
  // file by the frame's time. RecordFrame does it.
  void SetRecordTime(std::int64_t time, unsigned channel);

  // The same for the events alone: a frame of theirs that is in no file.
  void SetEventTime(std::int64_t time, unsigned channel);

  // The seconds before an event that are recorded with it; events begun from now on note them while
  // enabled, else 0.
  void SetPreAlarm(std::uint8_t seconds, bool enabled);
  // The same for the events of a channel that run, once it is known what there was to record.
  void SetEventPreAlarm(unsigned channel, std::uint8_t seconds);
  // Holds from the next file on. A path that differs from the open file's begins one with the next
  // key frame.
  void SetRecParam(const stRecordParam& param);
  stRecordParam GetRecParam() const;

  // While it is so, no video belongs to the sound: a file may begin with any block of it, and it
  // counts as the frames that show whether something is missing.
  void SetSoundAlone(bool alone);

  enum class FrameUse {
    kPlain,
    kMarked,       // video: written with the device-event mark
    kBeforeEvent,  // from before the event that just began, whose times stay as they are
  };
  // One frame as the streaming client hands it on. Nothing happens unless a kind runs for its
  // channel. The header is written with fresh check bytes; the caller's stays as it is. The time of
  // a video frame's arrival tells its place within its second; when it is not known, that of the
  // call does. False when the frame was not recorded, also when its header contradicts the sizes.
  bool RecordFrame(const cms::FrameView& frame, FrameUse use);

  // The same for the header area and the payload by themselves.
  bool RecordVideoFrame(const void* header, int headerSize, const void* data, int size,
                        unsigned channel, bool markDeviceEvent = false);
  bool RecordAudioFrame(const void* header, int headerSize, const void* data, int size,
                        unsigned channel);
  // The tick (cms::TickMilliseconds) is that of the arrival; 0: not known.
  bool RecordPreAlarmFrame(const void* header, int headerSize, const void* data, int size,
                           unsigned channel, std::uint64_t arrivalTick = 0);

 private:
  using enum cms::RecordKind;

  void StopAtExit();
  void OpenEvent(cms::RecordKind kind, unsigned channel) CMS_REQUIRES(starting_);
  void StoreEvent(cms::RecordKind kind, unsigned channel) CMS_REQUIRES(starting_);
  void PassOnEvent(cms::RecordKind kind, unsigned channel) CMS_REQUIRES(lock_);
  void EndEventsBefore(std::int64_t time, unsigned channel) CMS_REQUIRES(lock_);
  bool AnyRuns() const;
  unsigned RunningKinds(unsigned channel) const;  // as bits
  bool RecordAudioBlocks(std::span<const std::span<const std::uint8_t>> blocks,
                         std::uint32_t seconds) CMS_REQUIRES(lock_);

  CMSCritical starting_;  // orders starts and stops; taken before lock_, not by recorded frames
  struct CMS_HIDDEN Kinds;
  const std::unique_ptr<Kinds> kinds_;
  struct CMS_HIDDEN Frames;
  const std::unique_ptr<Frames> frames_ CMS_PT_GUARDED_BY(lock_);
};

}  // namespace FX

using FX::FX_DRVRecorder;
