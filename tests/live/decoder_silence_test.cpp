// Nothing that a camera sends makes the codec library write to the standard error of the client
// application.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <random>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "cms/live/decoder.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/flat_jpeg.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

// What is written to descriptor 2 while it lives.
class CapturedErrors {
 public:
  CapturedErrors() : file_(memfd_create("errors", MFD_CLOEXEC)), before_(dup(2)) { dup2(file_, 2); }
  ~CapturedErrors() {
    Stop();
    close(file_);
  }
  std::string Stop() {
    if (before_ >= 0) {
      dup2(before_, 2);
      close(before_);
      before_ = -1;
    }
    std::string text(4096, '\0');
    const ssize_t got = pread(file_, text.data(), text.size(), 0);
    text.resize(got > 0 ? static_cast<std::size_t>(got) : 0);
    return text;
  }

 private:
  int file_;
  int before_;
};

void DecodeQuietly(CMSDecoder& decoder, Bytes data) {
  const int length = static_cast<int>(data.size());
  data.resize(data.size() + CMSDecoder::kInputPadding);
  decoder.Decode(data.data(), length, nullptr);
}

// A JPEG with that size in its frame header, which FlatJpeg writes at a fixed place.
Bytes JpegOfSize(int width, int height) {
  Bytes jpeg = test::FlatJpeg({{1, 2, 3}}, 1, {2, 2});
  const std::size_t frame = 2 + 2 + 67;
  for (const auto& [at, value] : {std::pair{frame + 5, height}, {frame + 7, width}}) {
    jpeg[at] = static_cast<std::uint8_t>(value >> 8);
    jpeg[at + 1] = static_cast<std::uint8_t>(value);
  }
  return jpeg;
}

// Bits of a sequence parameter set (H.264, 7.3.2.1.1): a high profile with a scaling list whose
// first step is out of range, and a size that no level allows.
Bytes AbsurdParameterSet() {
  std::string bits;
  const auto unsignedGolomb = [&](unsigned value) {
    std::string digits;
    for (unsigned rest = value + 1; rest != 0; rest /= 2) {
      digits.insert(digits.begin(), rest % 2 != 0 ? '1' : '0');
    }
    bits += std::string(digits.size() - 1, '0') + digits;
  };
  unsignedGolomb(0);  // its number
  unsignedGolomb(1);  // 4:2:0
  unsignedGolomb(0);
  unsignedGolomb(0);
  bits += "011";  // no bypass, a scaling matrix, the first list of which is there
  unsignedGolomb(1999);
  bits.resize(bits.size() + 512, '1');
  Bytes unit = {0, 0, 0, 1, 0x67, 100, 0, 40};
  for (std::size_t at = 0; at + 8 <= bits.size(); at += 8) {
    unit.push_back(static_cast<std::uint8_t>(std::stoi(bits.substr(at, 8), nullptr, 2)));
  }
  return unit;
}

TEST(DecoderSilence, HoldsWhateverACameraSends) {
  test::ClipSpec spec;
  spec.frames = 6;
  std::vector<Bytes> streams[2];
  for (const bool jpeg : {false, true}) {
    spec.codec = jpeg ? test::ClipCodec::kMjpeg : test::ClipCodec::kH264;
    for (const test::EncodedFrame& frame : EncodeClip(spec)) {
      streams[jpeg ? 1 : 0].push_back(frame.data);
    }
  }
  const int level = av_log_get_level();
  av_log_set_level(AV_LOG_VERBOSE);
  CapturedErrors errors;
  std::mt19937 random(11);
  for (const bool jpeg : {false, true}) {
    CMSDecoder decoder;
    ASSERT_EQ(decoder.Create(jpeg ? DECODE_CODEC_MJPEG : DECODE_CODEC_H264, {}), 0);
    for (const Bytes& frame : streams[jpeg ? 1 : 0]) {
      for (int round = 0; round < 40; ++round) {
        Bytes data = frame;
        for (int hit = 0; hit < 6; ++hit) {
          data[random() % std::min<std::size_t>(data.size(), 400)] =
              static_cast<std::uint8_t>(random());
        }
        DecodeQuietly(decoder, data);
      }
    }
    DecodeQuietly(decoder, AbsurdParameterSet());
    for (const auto& [width, height] : {std::pair{0, 0}, {0, 480}, {65500, 65500}, {20000, 9000}}) {
      DecodeQuietly(decoder, JpegOfSize(width, height));
    }
    DecodeQuietly(decoder, test::FlatJpeg({{1, 2, 3}, {4, 5, 6}}, 1, {4, 1}));
    decoder.SetDisplaySize({99999, 99999}, nullptr);
    DecodeQuietly(decoder, streams[jpeg ? 1 : 0][0]);
  }
  EXPECT_EQ(errors.Stop(), "");
  av_log_set_level(level);
}

TEST(DecoderSilence, LeavesOthersTheirMessages) {
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(DECODE_CODEC_MJPEG, {}), 0);
  CapturedErrors errors;
  av_log(nullptr, AV_LOG_ERROR, "the client application's own\n");
  EXPECT_EQ(errors.Stop(), "the client application's own\n");
}

}  // namespace
