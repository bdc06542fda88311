// The colours that are shown, against what the standards compute of the samples.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "cms/live/decoder.h"
#include "tests/support/flat_jpeg.h"
#include "tests/support/shell.h"

namespace {

using test::FlatJpeg;
using test::JpegSampling;
using test::YCbCr;
using Bytes = std::vector<std::uint8_t>;

constexpr int kPatch = 32;
constexpr int kRows = 2;

// Black to white, beyond the limited range on both sides, and colours.
const std::vector<YCbCr>& Patches() {
  static const std::vector<YCbCr> patches = {{16, 128, 128},  {8, 128, 128},   {64, 128, 128},
                                             {240, 128, 128}, {128, 128, 128}, {100, 90, 170},
                                             {140, 170, 80},  {180, 110, 120}};
  return patches;
}

const int kShownWidth = kPatch * 8;
constexpr int kRounding =
    4;  // of the fast conversion; a wrong matrix or range is off by 10 or more

// The share of red and blue in the brightness.
struct Matrix {
  double red, blue;
};
constexpr Matrix kBt601{0.299, 0.114};
constexpr Matrix kBt709{0.2126, 0.0722};

struct Rgb {
  int red, green, blue;
};

Rgb Computed(YCbCr sample, Matrix matrix, bool full) {
  const double y = full ? sample.y : (sample.y - 16) * 255.0 / 219;
  const double spread = full ? 1 : 255.0 / 224;
  const double cb = (sample.cb - 128) * spread;
  const double cr = (sample.cr - 128) * spread;
  const double red = y + 2 * (1 - matrix.red) * cr;
  const double blue = y + 2 * (1 - matrix.blue) * cb;
  const double green = (y - matrix.red * red - matrix.blue * blue) / (1 - matrix.red - matrix.blue);
  const auto byte = [](double value) {
    return static_cast<int>(std::clamp(std::lround(value), 0L, 255L));
  };
  return {byte(red), byte(green), byte(blue)};
}

Bytes ShownColours(CMSDecoder& decoder) {
  tagSIZE size;
  const unsigned char* const pixels = decoder.LockDecodedImage(&size);
  const Bytes copy(pixels, pixels + size.cx * size.cy * 4);
  decoder.UnlockDecodedImage();
  return copy;
}

void ExpectPatches(DECODE_CODEC codec, const Bytes& frame, Matrix matrix, bool full, bool grey) {
  CMSDecoder decoder;
  ASSERT_EQ(decoder.Create(codec, {}), 0);
  Bytes padded = frame;
  padded.resize(frame.size() + CMSDecoder::kInputPadding);
  const int length = static_cast<int>(frame.size());
  ASSERT_EQ(decoder.Decode(padded.data(), length, nullptr), DECODE_RESULT_PICTURE);
  ASSERT_EQ(decoder.GetDecodeImageSize().cx, kShownWidth);
  const Bytes pixels = ShownColours(decoder);
  for (std::size_t i = 0; i < Patches().size(); ++i) {
    YCbCr sample = Patches()[i];
    if (grey) {
      sample.cb = sample.cr = 128;
    }
    const Rgb wanted = Computed(sample, matrix, full);
    const std::size_t middle = 4 * (static_cast<std::size_t>(kShownWidth) * (kPatch * kRows / 2) +
                                    i * kPatch + kPatch / 2);
    EXPECT_NEAR(pixels[middle], wanted.blue, kRounding) << "blue of patch " << i;
    EXPECT_NEAR(pixels[middle + 1], wanted.green, kRounding) << "green of patch " << i;
    EXPECT_NEAR(pixels[middle + 2], wanted.red, kRounding) << "red of patch " << i;
  }
}

struct JpegCase {
  const char* name;
  JpegSampling sampling;
};

class JpegColours : public testing::TestWithParam<JpegCase> {};
INSTANTIATE_TEST_SUITE_P(, JpegColours,
                         testing::Values(JpegCase{"Yuv420", {2, 2}}, JpegCase{"Yuv422", {2, 1}},
                                         JpegCase{"Yuv440", {1, 2}}, JpegCase{"Yuv444", {1, 1}},
                                         JpegCase{"Yuv411", {4, 1}},
                                         JpegCase{"Grey", {1, 1, true}}),
                         [](const auto& each) { return each.param.name; });

TEST_P(JpegColours, AreFullRangeBt601) {
  ExpectPatches(DECODE_CODEC_MJPEG, FlatJpeg(Patches(), kRows, GetParam().sampling), kBt601, true,
                GetParam().sampling.grey);
}

struct StreamCase {
  const char* name;
  const char* format;
  const char* named;  // what the encoder writes about the colours
  Matrix matrix;
  bool full;
};

class H264Colours : public testing::TestWithParam<StreamCase> {};
INSTANTIATE_TEST_SUITE_P(
    , H264Colours,
    testing::Values(
        StreamCase{"Yuv420", "yuv420p", "", kBt601, false},
        StreamCase{"Yuv420Bt709", "yuv420p", "-colorspace bt709 -color_range tv", kBt709, false},
        StreamCase{"Yuv420Full", "yuv420p", "-color_range pc", kBt601, true},
        StreamCase{"Yuv420Bt709Full", "yuv420p", "-colorspace bt709 -color_range pc", kBt709, true},
        StreamCase{"Yuv420Bt470", "yuv420p", "-colorspace bt470bg -color_range tv", kBt601, false},
        StreamCase{"Yuv422Bt709", "yuv422p", "-colorspace bt709 -color_range tv", kBt709, false},
        StreamCase{"Yuv422Full", "yuv422p", "-color_range pc", kBt601, true},
        StreamCase{"Yuv444Bt709", "yuv444p", "-colorspace bt709 -color_range tv", kBt709, false},
        StreamCase{"Yuv444Full", "yuv444p", "-color_range pc", kBt601, true},
        StreamCase{"Grey", "gray", "-color_range tv", kBt601, false},
        StreamCase{"GreyFull", "gray", "-color_range pc", kBt601, true}),
    [](const auto& each) { return each.param.name; });

// The planes of the patches as raw video.
std::string RawPicture(const std::string& format) {
  const int across = format == "yuv444p" ? 1 : 2;
  const int down = format == "yuv420p" ? 2 : 1;
  std::string raw;
  for (int plane = 0; plane < (format == "gray" ? 1 : 3); ++plane) {
    const int width = plane == 0 ? kShownWidth : kShownWidth / across;
    const int height = plane == 0 ? kPatch * kRows : kPatch * kRows / down;
    for (int i = 0; i < width * height; ++i) {
      const auto at = static_cast<std::size_t>(i % width * 8 / width);
      const YCbCr& patch = Patches()[at];
      raw += static_cast<char>(plane == 0 ? patch.y : plane == 1 ? patch.cb : patch.cr);
    }
  }
  return raw;
}

Bytes ReadAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(file), {});
}

// One picture, encoded without loss.
TEST_P(H264Colours, AreThoseThatTheStreamNames) {
  const StreamCase& each = GetParam();
  const std::string base =
      testing::TempDir() + "/colours." + each.name + "." + std::to_string(getpid());
  std::ofstream(base + ".yuv", std::ios::binary) << RawPicture(each.format);
  const std::string size = std::to_string(kShownWidth) + "x" + std::to_string(kPatch * kRows);
  const auto encoded =
      test::RunShell("ffmpeg -v error -y -f rawvideo -pix_fmt " + std::string(each.format) +
                     " -s " + size + " -i '" + base + ".yuv' -c:v libx264 -qp 0 -threads 1 " +
                     each.named + " -f h264 '" + base + ".h264'");
  ASSERT_EQ(encoded.status, 0) << encoded.errors;
  const Bytes frame = ReadAll(base + ".h264");
  std::remove((base + ".yuv").c_str());
  std::remove((base + ".h264").c_str());
  ExpectPatches(DECODE_CODEC_H264, frame, each.matrix, each.full,
                each.format == std::string("gray"));
}

}  // namespace
