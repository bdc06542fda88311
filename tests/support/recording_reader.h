// Reads recordings back for tests, by offset and without the library's readers, and makes the
// frames that are recorded.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "cms/live/media/frame_header.h"
#include "cms/recording/drv_recorder.h"
#include "cms/runtime/clock.h"
#include "tests/support/encoded_clip.h"

namespace test {

struct RecordedFrame {
  std::uint64_t offset = 0;
  std::uint64_t length = 0;
  bool audio = false;
  unsigned type = 0;
  std::uint32_t seconds = 0;
  std::uint32_t sequence = 0;
  std::uint16_t eventMask = 0;
  std::string payload;
};

struct RecordedIndex {
  std::uint32_t channel = 0;
  std::uint32_t offset = 0;
  std::uint32_t state = 0;
  std::uint64_t milliseconds = 0;
  std::uint32_t type = 0;
  std::uint32_t secondState = 0;
};

struct RecordedFile {
  std::string name;
  std::vector<RecordedFrame> frames;
  std::vector<RecordedIndex> index;
};

// The frames of a .drv file from `start` on. Throws std::runtime_error unless one sound header
// follows the other up to the end of the file.
std::vector<RecordedFrame> ReadDrv(const std::string& path, std::uint64_t start = 0);
std::vector<RecordedIndex> ReadIdx(const std::string& path);  // throws when a record is torn

// All recordings of a folder in the order of their names. Throws when a file or an index is not
// sound, or unless the index has a record for each video frame that points at its header and tells
// its type and second.
std::vector<RecordedFile> ReadRecordings(const std::string& folder);

// Throws unless every file begins with a key frame and the files together hold each video frame
// from `first` on exactly once, in order; returns the sequence number behind the last.
std::uint32_t CheckSeams(const std::vector<RecordedFile>& files, std::uint32_t first = 1);

// Frames of one camera as a streaming client hands them on, of a real encoder's clip played again
// and again.
class FrameSource {
 public:
  explicit FrameSource(const ClipSpec& spec = {}, unsigned channel = 0);

  struct Frame {
    std::array<std::uint8_t, cms::kVideoHeaderRoom> header;
    const std::vector<std::uint8_t>* payload = nullptr;
    bool key = false;
  };
  Frame Next();  // with the clock's second
  // Records the next frame; its result is RecordVideoFrame's.
  bool Record(FX::FX_DRVRecorder& recorder, bool mark = false);
  bool RecordAudio(FX::FX_DRVRecorder& recorder);
  bool RecordGop(FX::FX_DRVRecorder& recorder);  // from a key frame up to the next; all recorded
  void SkipToKeyFrame();

  std::uint32_t NextSequence() const { return sequence_ + 1; }
  bool NextIsKey() const { return clip_[next_].key; }
  std::string PayloadOf(std::uint32_t sequence) const;  // if none was skipped

 private:
  std::vector<EncodedFrame> clip_;
  unsigned channel_;
  std::size_t next_ = 0;
  std::uint32_t sequence_ = 0;
};

// A clock that tests turn, in force while it lives.
class TestClock final : public cms::Clock {
 public:
  TestClock() { cms::ReplaceClock(this); }
  ~TestClock() override { cms::ReplaceClock(nullptr); }
  std::uint64_t TickMilliseconds() const override { return tick_; }
  std::int64_t WallSeconds() const override { return wall_; }
  void Advance(std::int64_t seconds) {
    tick_ += static_cast<std::uint64_t>(seconds) * 1000;
    wall_ += seconds;
  }
  void AdvanceMilliseconds(std::uint64_t milliseconds) { tick_ += milliseconds; }
  void SetWall(std::int64_t seconds) { wall_ = seconds; }

 private:
  std::atomic<std::uint64_t> tick_{1'000'000};
  std::atomic<std::int64_t> wall_{1'700'000'000};
};

}  // namespace test
