// Short clips from real encoders, made in memory, whose pictures carry their frame number.
#pragma once

#include <cstdint>
#include <vector>

namespace test {

enum class ClipCodec { kH264, kMjpeg, kMpeg4, kH265 };
enum class ClipProfile { kBaseline, kHigh };  // H.264 only

struct ClipSpec {
  ClipCodec codec = ClipCodec::kH264;
  int width = 320;  // even, at least 64
  int height = 240;
  int frames = 30;
  int gop = 10;  // distance of key frames; every MJPEG frame is one
  ClipProfile profile = ClipProfile::kBaseline;
  int fps = 25;
  int bitrate = 0;          // bits per second; 0: constant quality
  int slices = 1;           // of each H.264 or H.265 picture
  bool delimiters = false;  // an access-unit delimiter before each H.264 or H.265 picture
  bool noise = false;       // pictures that are hard to compress
  int bframes = 0;          // in a row; of H.264 with the high profile, of H.265 and MPEG-4
  bool openGroups = false;  // those in front of a key frame refer to the group before it
};

struct EncodedFrame {
  std::vector<std::uint8_t>
      data;  // one picture: H.264 or H.265 Annex B, a whole JPEG, MPEG-4 with in-band VOL
  bool key = false;
  std::int64_t pts = 0;  // in frames, from 0; the frame's number
};

// In decoding order, parameter sets in front of each key frame. JPEGs use the
// standard Huffman tables and 4:2:0, as RTP carries them. Throws std::runtime_error when an encoder
// fails.
std::vector<EncodedFrame> EncodeClip(const ClipSpec& spec);

// The number (modulo 4096) of the frame shown by a BGRA picture, also when it was scaled from
// codedWidth to width in about the same proportions. -1 when the picture shows no valid number.
int ReadFrameNumber(const std::uint8_t* bgra, int width, int height, int stride, int codedWidth);

}  // namespace test
