// Recordings for those who have no player of ours: clips as MP4 and Matroska files, and pictures.
//
// A clip has the encoded frames as the camera made them: no picture is decoded or encoded again,
// except that units of H.264 and H.265 get lengths in place of their start codes, and that a view
// of a fisheye camera, where one is asked for, is made and encoded as H.264. Sound is copied where
// it is AAC, and of the others where the container is Matroska and has a place for it; the rest
// becomes AAC. MP4 has its index in front. Frames of one second are spread evenly over it; pictures
// that are shown in another order than they are decoded in (B-frames) get both times. Damage is
// skipped, together with the frames that need what was damaged, up to the next key frame.
//
// All functions read files and wait for the disk; any thread may call them, several at once.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "cms/live/media/fisheye.h"
#include "cms/runtime/api.h"

namespace cms {

// A .drv file, or the seconds of it that are wanted: from the last key frame in front of `first`,
// or else from the first behind it.
struct RecordingPart {
  std::string path;                                               // native, UTF-8
  std::int64_t first = std::numeric_limits<std::int64_t>::min();  // seconds since 1970-01-01 UTC,
  std::int64_t last = std::numeric_limits<std::int64_t>::max();   // both inclusive
  // The next part begins a second behind `last`: what is left of that second at the end of this
  // file comes before it; a file that goes on for longer gives way to the next part.
  bool sharesSecond = false;
};

// A site's recordings in an interval of seconds (both inclusive), in the order of play, as the
// databases of the data root know them; without one that of the process counts, or else the
// databases are beside the working folder (cms/recording/data_root.h). Empty when there are none.
CMS_API std::vector<RecordingPart> RecordingPartsOf(std::uint32_t site, std::int64_t first,
                                                    std::int64_t last,
                                                    const std::string& dataRoot = {});

// Called for every frame that is gone through, on the caller's thread: bytes of the parts' files so
// far, and of all. Returns false to stop; then nothing is written. May be empty.
using ExportProgress = std::function<bool(std::uint64_t done, std::uint64_t total)>;

struct RecordingSource {
  std::vector<RecordingPart> parts;  // one after the other
  // 0 to 3, the number in the frames' headers; without one it is that of the first video frame.
  std::optional<unsigned> stream;
  // How its pictures are looked at (cms/live/media/fisheye.h). A view is as large as the pictures
  // unless a width and a height are given; a clip's is made even.
  FisheyeSettings fisheye;
  int viewWidth = 0;
  int viewHeight = 0;
};

enum class ClipContainer { kMp4, kMatroska };

struct ExportOptions {
  RecordingSource source;
  std::string path;  // of the clip, native, UTF-8; an existing file is replaced at the end
  ClipContainer container = ClipContainer::kMp4;
};

struct ExportResult {
  std::string error;                // one line: why nothing was written; empty when it was
  std::uint64_t frames = 0;         // pictures written
  double duration = 0;              // seconds
  std::uint64_t skippedBytes = 0;   // damaged
  std::uint64_t skippedFrames = 0;  // that needed what was damaged
  std::uint64_t otherFrames = 0;    // video of other streams, which may be chosen
  std::int64_t first = 0;           // seconds of the first and the last picture
  std::int64_t last = 0;
  bool audio = false;
  std::vector<std::string> notes;  // what was left out, and what to do about it
};

// Writes the source's video of one stream, and its audio.
// The file is "<path>.part" until it is whole, and is removed when it does not become so. Fails
// when there is no picture, when something cannot be read or written, and when `progress` stops it.
//
// A library that was built without ORVANTA_EXPORT says so in `error`, and writes nothing.
CMS_API ExportResult ExportRecording(const ExportOptions& options, const ExportProgress& progress);

enum class WhichPicture { kFirst, kLast };

struct RecordedPicture {
  std::string error;  // one line: why there is none; empty when there is
  int width = 0;
  int height = 0;
  std::vector<std::uint8_t> bgra;  // rows from top to bottom without gaps, 4 bytes a pixel
  // The same picture as the camera made it, if it made a JPEG and that is what is looked at.
  std::vector<std::uint8_t> jpeg;
  std::int64_t second = 0;         // since 1970-01-01 UTC
  std::uint64_t skippedBytes = 0;  // as above
  std::uint64_t skippedFrames = 0;
};

// Decodes one picture of a source: with kLast and a part that ends at some second, the one that was
// to be seen then.
CMS_API RecordedPicture DecodeRecordedPicture(const RecordingSource& source, WhichPicture which,
                                              const ExportProgress& progress);

}  // namespace cms
