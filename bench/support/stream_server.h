// A camera for benchmarks of receivers: an RTSP server so lean that two cores feed 128 clients.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "tests/support/encoded_clip.h"

namespace bench {

// A clip's H.264 or H.265 pictures as RTP payloads (RFC 6184 and RFC 7798: single units, fragments
// when they are longer than 1,400 bytes), made once and sent to every client from here.
class PacketizedClip {
 public:
  static constexpr std::size_t kPayload = 1400;

  struct Packet {
    std::size_t offset = 0;
    std::size_t size = 0;
    bool marker = false;
  };

  PacketizedClip(const std::vector<test::EncodedFrame>& frames, test::ClipCodec codec);

  std::size_t FrameCount() const { return frames_.size(); }
  std::span<const Packet> Frame(std::size_t index) const { return frames_[index]; }
  const std::uint8_t* Data(const Packet& packet) const { return bytes_.data() + packet.offset; }
  std::size_t PacketCount() const { return packetCount_; }
  // Of the session description: what the payload type 96 is, and the parameter sets.
  const std::string& MediaLines() const { return mediaLines_; }

 private:
  std::vector<std::uint8_t> bytes_;
  std::vector<std::vector<Packet>> frames_;
  std::size_t packetCount_ = 0;
  std::string mediaLines_;
};

// Serves the clip at 25 pictures a second, over and over, to any number of RTSP clients over UDP or
// interleaved TCP, from this thread, until standard input ends. Each client's stream begins with
// the first picture at the time of its PLAY; a picture's packets leave eight at a time, 1 ms apart,
// as from a camera with a 100 Mbit/s port. Writes the port it listens on to standard output.
// Returns the process's exit status.
int ServeClip(const PacketizedClip& clip);

}  // namespace bench
