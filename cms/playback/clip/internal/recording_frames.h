// RecordingFrames: the frames of a site's recordings, file after file, from a key frame on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <span>
#include <vector>

#include "cms/live/media/codec_id.h"
#include "cms/playback/clip/recording_export.h"
#include "cms/recording/drv_walker.h"

namespace cms {

struct RecordedFrame {
  std::shared_ptr<const ScopedFile> file;
  DrvFrame frame;
  bool key = false;
  bool audio = false;
  std::int64_t Seconds() const { return frame.header.Seconds(); }
};

// The video of one stream and the audio between it. Begins with the last key frame in front of the
// first second wanted, or else with the first behind it. Behind damage, and in a new file, frames
// that need others are left out up to the next key frame. Throws std::runtime_error naming the file
// when one cannot be opened or read, and one when `progress` says stop. One thread at a time.
class RecordingFrames {
 public:
  // Larger ones are damage.
  static constexpr std::uint32_t kLargestFrame = 64u << 20;

  RecordingFrames(RecordingSource source, ExportProgress progress);

  std::optional<RecordedFrame> Next();

  // What a key frame is, by its header area or else by its bytes.
  CMSVideoType VideoType(const RecordedFrame& frame) const;

  // With kInputPadding zeros behind it; valid until the next call.
  std::span<std::uint8_t> Payload(const RecordedFrame& frame);

  std::uint64_t SkippedBytes() const { return skippedBytes_; }    // damage, from the start on
  std::uint64_t SkippedFrames() const { return skippedFrames_; }  // that needed what was damaged
  std::uint64_t OtherFrames() const { return otherFrames_; }      // video of other streams

 private:
  void ReportDone();
  void OpenPart();
  std::optional<DrvFrame> Walk();
  bool EndsWithin(std::int64_t second, std::uint64_t offset);
  bool StandsAlone(const DrvFrame& frame);
  void Take(const DrvFrame& frame);
  void ClosePart();

  const std::vector<RecordingPart> parts_;
  std::optional<unsigned> stream_;
  const ExportProgress progress_;
  std::size_t part_ = 0;  // the next to open
  std::shared_ptr<const ScopedFile> file_;
  std::unique_ptr<DrvWalker> walker_;
  bool begun_ = false;                     // the first second wanted, or a later one, was met
  bool needsKey_ = true;                   // nothing that depends on others may follow
  std::optional<bool> takesSharedSecond_;  // of the part that is open
  std::uint64_t damage_ = 0;               // what the walker had skipped when it was last asked
  std::deque<RecordedFrame> ready_;        // from a key frame on
  std::vector<std::uint8_t> payload_;
  std::uint64_t skippedBytes_ = 0;
  std::uint64_t skippedFrames_ = 0;
  std::uint64_t otherFrames_ = 0;
  std::uint64_t doneBefore_ = 0;  // the parts that are through
  std::uint64_t done_ = 0;        // bytes of the files gone through
  std::uint64_t total_ = 0;
};

}  // namespace cms
