// ClipWriter: encoded frames into an MP4 or Matroska file, as they are, with their sound.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "cms/live/media/codec_id.h"
#include "cms/playback/clip/recording_export.h"

namespace cms {

struct ClipAudio {
  std::uint32_t codecId = 0;  // CMSCodecID
  int sampleRate = 0;
  int channels = 0;
  std::array<std::uint8_t, 2> config{};  // AAC's AudioSpecificConfig; zeros: no block told it
  bool operator==(const ClipAudio&) const = default;
};

// Microseconds. Times of decoding grow, and none lies behind that of presentation.
struct PictureTimes {
  std::int64_t decoding = 0;
  std::int64_t presentation = 0;
  std::int64_t interval = 0;  // up to the next one shown
};

// What a file has to know before its first frame.
struct ClipFormat {
  ClipContainer container = ClipContainer::kMp4;
  CMSCodecID video = CMS_CODEC_H264;
  int width = 0;
  int height = 0;
  int chromaFormat = 1;  // 4:2:0
  int bitDepth = 8;
  std::span<const std::uint8_t> keyFrame;  // the first, which carries the parameter sets
  std::optional<ClipAudio> audio;
  std::int64_t begin = 0;  // seconds since 1970-01-01 UTC, for the file's creation time
};

// What becomes of such sound in a container: AAC goes into both as it is, and into Matroska what it
// has a place for; the rest is made AAC.
enum class ClipSound { kCopied, kEncoded, kLeftOut };
ClipSound SoundIn(ClipContainer container, const ClipAudio& audio);

// Writes "<path>.part", which Finish renames to `path`; without Finish it is removed. Everything
// throws std::runtime_error with the path. One thread at a time.
class ClipWriter {
 public:
  ClipWriter(const std::string& path, const ClipFormat& format);
  ~ClipWriter();
  ClipWriter(const ClipWriter&) = delete;
  ClipWriter& operator=(const ClipWriter&) = delete;

  // The first picture's presentation is the beginning of the file. Its bytes are changed.
  void WriteVideo(std::span<std::uint8_t> frame, const PictureTimes& times, bool key);
  // Times in microseconds; they grow. Blocks that cannot be used are passed over. `told`: the time
  // is exact, see TimedFrame; sound that has drifted from its times follows them.
  void WriteAudio(std::span<const std::uint8_t> block, std::int64_t time, bool told);

  void Finish();
  double Duration() const;  // seconds of video

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace cms
