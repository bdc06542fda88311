// What a recorder is doing and how it fares, for its owner.
#pragma once

#include <array>
#include <cstdint>

namespace cms {

struct Moment {
  std::uint64_t tick = 0;  // cms::TickMilliseconds
  std::int64_t wall = 0;   // seconds since 1970-01-01 UTC
};

// Between two recorded video frames; `from` is all 0 in front of the first one.
struct RecordingSilence {
  Moment from;
  Moment to;
};

enum class RecordingState {
  kIdle,                // no file is open and none is wanted
  kWaitingForKeyFrame,  // the next file begins with the next key frame
  kRecording,
  kFailed,  // a file could not be opened or written: see `error`; it resumes by itself
};

struct FrameCounts {
  std::uint64_t frames = 0;  // key frames among them
  std::uint64_t keyFrames = 0;
  std::uint64_t bytes = 0;  // headers included
};

// Counters run from the recorder's construction.
struct RecordingStatus {
  RecordingState state = RecordingState::kIdle;
  int error = 0;  // errno of the failure that lasts, 0 while all is well
  int lastError = 0;

  std::uint64_t frames = 0;  // accepted; key frames among them
  std::uint64_t keyFrames = 0;
  std::uint64_t bytes = 0;          // of them, headers included
  std::uint64_t files = 0;          // begun or continued
  std::uint64_t waitingFrames = 0;  // dropped in front of a key frame
  std::uint64_t failedFrames = 0;   // dropped while failed
  std::uint64_t refusedFrames = 0;  // dropped because their header contradicts their size
  std::uint64_t lostBytes = 0;      // accepted, then not written because of a failure
  FrameCounts lost;                 // of the accepted frames those that mended files do not have
  std::uint64_t failures = 0;
  std::uint64_t resumptions = 0;
  std::uint64_t lateRecords = 0;  // of files, waiting to be mended or stored
  std::uint64_t lateEvents = 0;   // their records wait to be stored

  unsigned waitingJobs = 0;           // of the disk: buffers to be written, files to be opened
  std::uint64_t oldestWaitingMs = 0;  // since when the oldest of them waits; what memory holds
                                      // before it is handed over does not count

  std::uint64_t lastFrameTick = 0;  // cms::TickMilliseconds of the last accepted frame, 0: none yet

  static constexpr std::uint64_t kShortestSilenceMs = 1'000;
  std::uint64_t videoFrames = 0;                  // accepted; of sound alone, its blocks
  Moment lastVideo;                               // the last one of them
  std::uint64_t silences = 0;                     // of kShortestSilenceMs or more that are over
  std::array<RecordingSilence, 16> lastSilences;  // the n-th one, from 0, stands at n % 16

  void AddVideo(const Moment& now) {
    if (now.tick - lastVideo.tick >= kShortestSilenceMs) {
      lastSilences[silences++ % lastSilences.size()] = {lastVideo, now};
    }
    lastVideo = now;
    ++videoFrames;
  }
};

}  // namespace cms
