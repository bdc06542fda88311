// RecordingFrames: the frames of a site's recordings, file after file, from a key frame on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cms/recording/drv_walker.h"

namespace tools {

struct RecordingPart {
  std::string path;                                               // of the .drv file, native
  std::int64_t first = std::numeric_limits<std::int64_t>::min();  // seconds, both inclusive
  std::int64_t last = std::numeric_limits<std::int64_t>::max();
  // The next part begins a second behind `last`: what is left of that second at the end of this
  // file comes before it; a file that goes on for longer gives way to the next part.
  bool sharesSecond = false;
};

struct RecordedFrame {
  std::shared_ptr<const cms::ScopedFile> file;
  cms::DrvFrame frame;
  bool key = false;
  bool audio = false;
  std::int64_t Seconds() const { return frame.header.Seconds(); }
};

// The video of one stream and the audio between it. Begins with the last key frame in front of the
// first second wanted, or else with the first behind it. Behind damage, and in a new file, frames
// that need others are left out up to the next key frame. Throws std::runtime_error naming the file
// when one cannot be opened or read. One thread at a time.
class RecordingFrames {
 public:
  // Larger ones are damage.
  static constexpr std::uint32_t kLargestFrame = 64u << 20;

  // `stream` is 0 to 3; without one it is that of the first video frame.
  explicit RecordingFrames(std::vector<RecordingPart> parts, std::optional<unsigned> stream = {});

  std::optional<RecordedFrame> Next();

  // The payload with `padding` zeros behind it, until the next call.
  std::span<std::uint8_t> Payload(const RecordedFrame& frame, std::size_t padding);

  std::uint64_t SkippedBytes() const { return skippedBytes_; }    // damage, from the start on
  std::uint64_t SkippedFrames() const { return skippedFrames_; }  // that needed what was damaged
  std::uint64_t OtherFrames() const { return otherFrames_; }      // video of other streams
  std::uint64_t Done() const { return done_; }                    // bytes of the files gone through
  std::uint64_t Total() const { return total_; }

 private:
  void OpenPart();
  std::optional<cms::DrvFrame> Walk();
  bool EndsWithin(std::int64_t second, std::uint64_t offset);
  bool StandsAlone(const cms::DrvFrame& frame);
  void Take(const cms::DrvFrame& frame);
  void ClosePart();

  std::vector<RecordingPart> parts_;
  std::optional<unsigned> stream_;
  std::size_t part_ = 0;  // the next to open
  std::shared_ptr<const cms::ScopedFile> file_;
  std::unique_ptr<cms::DrvWalker> walker_;
  bool begun_ = false;    // the first second wanted, or a later one, was met
  bool needsKey_ = true;  // nothing that depends on others may follow
  bool sharedSecondChecked_ = false;
  std::uint64_t damage_ = 0;         // what the walker had skipped when it was last asked
  std::deque<RecordedFrame> ready_;  // from a key frame on
  std::vector<std::uint8_t> payload_;
  std::uint64_t skippedBytes_ = 0;
  std::uint64_t skippedFrames_ = 0;
  std::uint64_t otherFrames_ = 0;
  std::uint64_t doneBefore_ = 0;  // the parts that are through
  std::uint64_t done_ = 0;
  std::uint64_t total_ = 0;
};

}  // namespace tools
