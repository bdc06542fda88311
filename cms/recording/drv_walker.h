// DrvWalker, the one reader that steps through a .drv file from frame to frame.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "cms/recording/drv_format.h"
#include "cms/runtime/api.h"
#include "cms/runtime/file_io.h"

namespace cms {

// A frame as it lies in the file.
struct DrvFrame {
  DrvHeader header;
  std::uint64_t offset = 0;  // of the header
  std::uint64_t payloadOffset = 0;
  std::uint32_t payloadLength = 0;

  std::uint64_t End() const { return payloadOffset + payloadLength; }
};

// What the end of the file is, behind the last whole frame.
enum class DrvTail {
  kNone,           // the last frame ends with the file
  kTornFrame,      // a header holds there, but its frame is longer than the file
  kPartialHeader,  // fewer bytes than a header has
  kZeros,          // zeros alone: space that was never written
  kForeign,        // anything else
};

struct DrvWalkReport {
  struct Range {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
  };
  static constexpr std::size_t kMaximumRanges = 64;

  std::uint64_t frames = 0;  // whole ones; audio ones and key frames among them
  std::uint64_t audioFrames = 0;
  std::uint64_t keyFrames = 0;
  std::uint64_t frameBytes = 0;  // headers and areas included
  // Of the video frames, seconds since 1970-01-01 UTC; 0 without any.
  std::uint32_t firstSeconds = 0;
  std::uint32_t earliestSeconds = 0;  // the first one's unless the camera's clock stepped back
  std::uint32_t lastSeconds = 0;
  std::uint32_t latestSeconds = 0;  // the last one's unless the clock stepped back
  std::uint64_t skippedBytes = 0;   // not in any whole frame, the tail included
  std::uint64_t badChecks = 0;      // where a header had to be, one with a wrong check byte
  std::vector<Range> skipped;       // the first kMaximumRanges of them, in order, without the tail
  std::uint64_t fileSize = 0;
  std::uint64_t endOfFrames = 0;  // behind the last whole frame
  DrvTail tail = DrvTail::kNone;  // known once the walk has ended
  std::uint64_t tailLength = 0;   // bytes, up to the end of the file
  int error = 0;                  // errno when reading failed; the walk ended there
};

// Steps from header to header. After each frame the next header must hold (sync byte, kind, both
// check bytes). When it does not, the frame itself may have been cut short: if a header that leads
// to another one, or to the end of the file, lies inside it, the frame is given up; otherwise it
// counts, and the next header is looked for behind it byte by byte. Everything passed over is in
// the report.
//
// Reads at offsets through a buffer of 64 KiB, allocated once, so that other readers of the handle
// are not disturbed; files of any size. Sees the file as long as it was at the start, or at the
// last Refresh. One thread at a time. The handle is not owned.
class CMS_API DrvWalker {
 public:
  DrvWalker(FileIo& io, int handle);

  // The next whole frame; nothing at the end of the file or after a failure (see the report).
  std::optional<DrvFrame> Next();

  // Goes on at `offset`, where a header is expected. The report goes on counting.
  void Seek(std::uint64_t offset);

  // Takes note that the file has grown since, for following a recording that runs. A tail that was
  // reported is looked at again.
  void Refresh();

  // Reads up to out.size() bytes of the frame, from its header on; returns the bytes read.
  std::size_t Read(const DrvFrame& frame, std::span<std::uint8_t> out);

  const DrvWalkReport& Report() const { return report_; }

 private:
  std::span<const std::uint8_t> Bytes(std::uint64_t offset, std::size_t wanted);
  std::optional<DrvHeader> HeaderAt(std::uint64_t offset);
  bool HeaderHoldsAt(std::uint64_t offset);
  bool LeadsOn(std::uint64_t offset, const DrvHeader& header);
  std::uint64_t Find(std::uint64_t from, std::uint64_t limit, bool mustLeadOn);
  std::optional<DrvFrame> FrameAt(std::uint64_t offset);
  void Count(const DrvFrame& frame);
  void Skip(std::uint64_t from, std::uint64_t to);
  void End();
  DrvTail JudgeTail();

  FileIo& io_;
  const int handle_;
  std::vector<std::uint8_t> buffer_;
  std::uint64_t bufferOffset_ = 0;
  std::size_t buffered_ = 0;
  std::uint64_t position_ = 0;
  std::uint64_t tailBadChecks_ = 0;
  bool ended_ = false;
  DrvWalkReport report_;
};

}  // namespace cms
