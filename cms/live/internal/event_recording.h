// Which event recordings of one channel begin and end, and the frames from before them.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

#include "cms/live/internal/pre_alarm_buffer.h"
#include "cms/live/recording_kind.h"
#include "cms/recording/drv_recorder.h"

namespace cms {

// An event recording begins with the first frame that carries a mark of its kind, in its header or
// in the event state, while its kind is enabled. It ends when no frame carried one for the record
// duration; with a pre-alarm it goes on up to the next key frame, so that the frames behind it are
// ready for the next event. With a pre-alarm the frames of the seconds before are recorded first.
//
// Under the site's recorder lock, which the calls of the receiving thread and of the clock hold.
class EventRecording {
 public:
  static constexpr int kKinds[] = {kRecordDeviceEvent, kRecordAlarm, kRecordVideoLoss};

  explicit EventRecording(unsigned channel) : channel_(channel) {}

  // Seconds 0 to 255, the buffer's bytes (0: PreAlarmBuffer::DefaultBytes); what was kept is gone.
  void SetPreAlarm(unsigned seconds, bool enabled, std::size_t bytes);

  // Each records the frame if anything of the channel is recorded and keeps it otherwise. Returns
  // the marks of the frame as bits of the event state, those of `state` included.
  unsigned OnVideo(FX::FX_DRVRecorder& recorder, const PreAlarmBuffer::Frame& frame, unsigned state,
                   unsigned durationSeconds);
  void OnAudio(FX::FX_DRVRecorder& recorder, const PreAlarmBuffer::Frame& frame);

  // For a stream that fell silent: ends what is over.
  void OnClock(FX::FX_DRVRecorder& recorder, unsigned state, unsigned durationSeconds);

 private:
  static constexpr std::uint64_t kSilentMs = 5'000;

  struct Running {
    bool own = false;            // begun by a mark, so it ends without one
    std::uint64_t lastMark = 0;  // tick
  };

  bool IsOver(const FX::FX_DRVRecorder& recorder, unsigned kind, std::uint64_t now,
              unsigned durationSeconds) const;
  void Begin(FX::FX_DRVRecorder& recorder, unsigned kind, std::uint32_t seconds);
  std::uint32_t RecordKept(FX::FX_DRVRecorder& recorder);

  const unsigned channel_;
  bool preAlarmEnabled_ = false;
  unsigned preAlarm_ = 0;
  std::unique_ptr<PreAlarmBuffer> kept_;  // frames that are not recorded
  std::array<Running, 3> running_;
  std::uint32_t recordedSince_ = 0;  // header time of the first frame of the unbroken recording
  std::uint64_t lastFrame_ = 0;      // tick
};

// The recorder's operations by kind; false or no effect for a number that is none.
bool StartKind(FX::FX_DRVRecorder& recorder, unsigned channel, int kind);
void StopKind(FX::FX_DRVRecorder& recorder, unsigned channel, int kind);
bool IsKindRunning(const FX::FX_DRVRecorder& recorder, unsigned channel, int kind);
void TurnKind(FX::FX_DRVRecorder& recorder, unsigned channel, int kind, bool on);
bool IsKindOn(const FX::FX_DRVRecorder& recorder, unsigned channel, int kind);

}  // namespace cms
