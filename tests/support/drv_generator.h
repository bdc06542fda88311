// Recordings made byte by byte for tests, without the library's code: what it reads and writes is
// compared with these.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace test {

struct DrvFrameSpec {
  char kind = '2';
  bool audio = false;
  unsigned frameType = 1;  // 1: key frame
  unsigned stream = 0;
  std::uint32_t seconds = 1'700'000'000;
  std::uint32_t sequence = 1;
  std::uint32_t audioCodec = 0x10006;  // CMSCodecID
  std::uint32_t audioRate = 8000;
  unsigned audioChannels = 1;
  unsigned area = 116;  // video: header area, 32 bytes of header included
  std::string payload = {};
};

std::string LittleEndian(std::uint64_t value, int bytes);

// Sets the two check bytes of the header at the front of `frame`.
void Seal(std::string& frame);

std::string MakeDrvFrame(const DrvFrameSpec& spec);

// One 32-byte index record.
std::string MakeIdxRecord(std::uint32_t channel, std::uint32_t offset, std::uint64_t milliseconds,
                          std::uint32_t frameType, std::uint32_t state = 0,
                          std::uint32_t secondState = 0);

// A recording with what a reader has to find in it.
struct DrvRecording {
  struct Frame {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
    DrvFrameSpec spec;
  };
  std::string bytes;
  std::vector<Frame> frames;

  void Add(const DrvFrameSpec& spec);
  // The records of all video frames, or of key frames: channel = stream number, the milliseconds
  // count the records of a second.
  std::string Idx(bool keyFramesOnly = false) const;
};

// `count` frames, a key frame every `gop`, audio in between, five frames in a second, payloads of
// at most `largest` bytes. Payloads contain many "@2" that are no headers.
DrvRecording MakeRecording(std::size_t count, std::size_t gop, std::size_t largest, unsigned seed);

}  // namespace test
