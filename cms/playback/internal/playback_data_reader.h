// PlaybackDataReader, what the readers of recordings have in common: groups of pictures by time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace cms {

// Frames of one channel further apart than this may have a gap between them, in milliseconds
// (PlaybackTrack::IsGap).
inline constexpr std::int64_t kPlaybackGap = 2000;

// How long a frame is shown of which no neighbour tells: 25 a second.
inline constexpr std::int64_t kUsualInterval = 40;

inline constexpr unsigned kMostPlaybackChannels = 32;  // of a site

// A frame as it lies in its file.
struct PlaybackFrame {
  std::int64_t time = 0;  // milliseconds since 1970-01-01 UTC
  std::uint64_t offset = 0;
  std::uint32_t area = 0;     // bytes of its header, in front of the payload
  std::uint32_t payload = 0;  // bytes
  std::uint8_t type = 0;      // a FrameType
};

// Where a group of pictures is: a file of the reader and a key frame of that file.
struct GopPlace {
  std::size_t file = 0;
  std::size_t key = 0;
  bool operator==(const GopPlace&) const = default;
};

struct PlaybackGop {
  struct Audio {
    std::size_t after = 0;  // it is played with this frame of `video`
    PlaybackFrame frame;
  };

  GopPlace place;
  std::vector<PlaybackFrame> video;  // the first is the key frame; their times grow
  std::vector<Audio> audio;
};

struct PlaybackReaderStatus {
  std::uint64_t skippedBytes = 0;    // in no frame
  std::uint64_t rebuiltIndexes = 0;  // that were missing or wrong
};

// One channel of one site. Not for two threads at once. Places stay valid while the reader lives.
class PlaybackDataReader {
 public:
  PlaybackDataReader() = default;
  virtual ~PlaybackDataReader() = default;
  PlaybackDataReader(const PlaybackDataReader&) = delete;
  PlaybackDataReader& operator=(const PlaybackDataReader&) = delete;

  // False when there is nothing to play; `error` then says why, naming the file.
  virtual bool Open(std::string& error) = 0;

  // Of the first frame and of the last one (of the file that begins last). The beginning stays what
  // it was when the reader was opened.
  virtual std::int64_t StartTime() const = 0;
  virtual std::int64_t EndTime() const = 0;

  // The last group that begins at the time or before it; nothing when all begin later.
  virtual std::optional<GopPlace> At(std::int64_t time) = 0;
  virtual std::optional<GopPlace> First() = 0;
  virtual std::optional<GopPlace> After(const GopPlace& place) = 0;
  virtual std::optional<GopPlace> Before(const GopPlace& place) = 0;

  // Lists the frames of a group. False when nothing of it can be read any more.
  virtual bool Load(const GopPlace& place, PlaybackGop& gop) = 0;

  // The frame with its header in front; the bytes read.
  virtual std::size_t Read(const GopPlace& place, const PlaybackFrame& frame,
                           std::span<std::uint8_t> out) = 0;

  // Looks for what was recorded since. True when there is more, or when times became known better.
  virtual bool Refresh() = 0;
  // After how many milliseconds looking again makes sense; kNever when nothing more will come.
  static constexpr int kNever = -1;
  virtual int LookAgainAfter() = 0;

  virtual PlaybackReaderStatus Status() const = 0;
};

}  // namespace cms
