// SoundEncoder makes AAC of the blocks of any other sound.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

struct AVCodecContext;
struct AVPacket;

namespace cms {

struct ClipAudio;

// Blocks in, packets out, at the sound's own rate or the next one that AAC has. Throws
// std::runtime_error when the codec library cannot. One thread at a time.
class SoundEncoder {
 public:
  explicit SoundEncoder(const ClipAudio& sound);
  ~SoundEncoder();
  SoundEncoder(const SoundEncoder&) = delete;
  SoundEncoder& operator=(const SoundEncoder&) = delete;

  // Whether its blocks can be decoded.
  static bool Knows(const ClipAudio& sound);

  // For the container's header.
  const AVCodecContext& Context() const;

  // Takes the samples of a block; 0 when it cannot be decoded.
  std::size_t Add(std::span<const std::uint8_t> block);  // samples of each channel, at Rate()
  int Rate() const;                                      // of the packets' times
  // What comes next begins at this sample, later than what came: what waits for more is filled up
  // with silence.
  void GoTo(std::int64_t sample);
  // The next second of sound is to last so many samples more, or less, at Rate().
  void Stretch(std::int64_t samples);
  void End();  // nothing follows

  // The next packet, its times in samples, valid until the next call of any member; null when more
  // has to come.
  AVPacket* Next();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace cms
