// What a recorder asks of its disk thread for one file, and what became of it.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "cms/recording/recording_status.h"

namespace cms {

// Whose recordings they are, as the databases name it.
struct RecordedDevice {
  std::wstring address;
  std::wstring siteName;
  std::uint16_t port = 0;
};

// Times of frames, seconds since 1970-01-01 UTC; 0: none.
struct TimeSpan {
  std::int64_t start = 0;
  std::int64_t end = 0;

  // What goes on or begins near it is of the same span; beyond, the clock has been set, or the
  // camera was away for long.
  bool IsNear(std::int64_t time) const {
    constexpr std::int64_t kNear = 30;
    return time >= start - kNear && time <= end + kNear;
  }
};

// Shared by a recorder and its RecordingDisk. Frames are accepted while the file is still being
// opened: their offsets count from where the file will turn out to begin.
struct RecordingFile {
  enum class State {
    kOpening,
    kOpen,
    kContinued,  // it could not be opened: its frames go into the file before it
    kFailed,     // it could not be opened, and there was none
  };

  // What is asked for; nothing of it changes once it is asked.
  std::wstring front;                 // of the path, up to the stamp
  std::string dataRoot;               // empty: that of the process
  std::int64_t startTime = 0;         // in the name; a later second when that name is taken
  std::vector<std::uint8_t> headers;  // in front of the frames, unless the file has some already
  RecordedDevice device;

  // The recorder's until the disk is told to close the file or to open the next one.
  TimeSpan span;                       // of the frames' times
  std::vector<TimeSpan> earlierSpans;  // before the clock was set
  FrameCounts accepted;

  // The answer: `state` last.
  std::wstring drvPath;
  std::uint64_t begin = 0;  // the offset of the first frame
  int openError = 0;        // errno, with kContinued and kFailed
  int idxError = 0;         // errno: there is no index
  std::atomic<State> state{State::kOpening};

  std::atomic<int> error{0};  // errno of the first write that failed; nothing is written behind it
};

}  // namespace cms
