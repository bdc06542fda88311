#include "cms/streaming/internal/picture_size.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/support/encoded_clip.h"
#include "tests/support/shell.h"

namespace {

using cms::PictureSize;

TEST(PictureSize, IsWhatTheEncoderWasToldInEveryFormat) {
  namespace fs = std::filesystem;
  struct Case {
    const char* size;
    const char* options;
    PictureSize expected;
  };
  const fs::path stream =
      fs::temp_directory_path() / ("orvanta-size-" + std::to_string(::getpid()) + ".h264");
  for (const Case& c : {Case{"640x360", "-profile:v baseline", {640, 360}},
                        Case{"640x360", "-profile:v main", {640, 360}},
                        Case{"640x360", "-profile:v high", {640, 360}},
                        Case{"1920x1080", "-profile:v high", {1920, 1080}},
                        Case{"800x600", "-profile:v high", {800, 600}},
                        Case{"2592x1944", "-profile:v high", {2592, 1944}},
                        Case{"322x242", "-profile:v high", {322, 242}},
                        Case{"1920x1080", "-flags +ildct+ilme -x264-params tff=1", {1920, 1080}},
                        Case{"704x244", "-flags +ildct+ilme -x264-params tff=1", {704, 244}},
                        Case{"322x241", "-pix_fmt yuv422p", {322, 241}},
                        Case{"321x241", "-pix_fmt yuv444p", {321, 241}},
                        Case{"321x241", "-pix_fmt gray", {321, 241}},
                        Case{"640x360", "-pix_fmt yuv420p10le", {640, 360}}}) {
    SCOPED_TRACE(std::string(c.size) + " " + c.options);
    test::RunShell("ffmpeg -v error -y -f lavfi -i testsrc=size=" + std::string(c.size) +
                   " -frames:v 1 -c:v libx264 -preset ultrafast -pix_fmt yuv420p " + c.options +
                   " -f h264 " + stream.string());
    std::ifstream file(stream, std::ios::binary);
    const std::vector<unsigned char> frame((std::istreambuf_iterator<char>(file)), {});
    ASSERT_GT(frame.size(), 20u);
    EXPECT_EQ(cms::AnnouncedSize(cms::CMS_VIDEO_H264, frame), c.expected);
  }
  fs::remove(stream);
}

TEST(PictureSize, IsReadFromKeyFramesOfEachCodecAndFromNothingElse) {
  for (const auto& [codec, type] : {std::pair{test::ClipCodec::kH264, cms::CMS_VIDEO_H264},
                                    std::pair{test::ClipCodec::kMjpeg, cms::CMS_VIDEO_MJPEG},
                                    std::pair{test::ClipCodec::kMpeg4, cms::CMS_VIDEO_MPEG4},
                                    std::pair{test::ClipCodec::kH265, cms::CMS_VIDEO_H265}}) {
    const auto clip = test::EncodeClip({.codec = codec, .width = 328, .height = 248, .frames = 2});
    EXPECT_EQ(cms::AnnouncedSize(type, clip[0].data), (PictureSize{328, 248})) << type;
    EXPECT_FALSE(cms::AnnouncedSize(cms::CMS_VIDEO_UNKNOWN, clip[0].data));
    if (codec == test::ClipCodec::kH264) {
      EXPECT_FALSE(cms::AnnouncedSize(type, clip[1].data)) << "no parameter set";
    }
  }
}

class SizeBitWriter {
 public:
  SizeBitWriter& Bits(std::uint32_t value, int count) {
    for (int i = count - 1; i >= 0; --i) {
      if (used_ % 8 == 0) {
        bytes_.push_back(0);
      }
      bytes_.back() |= static_cast<unsigned char>((value >> i & 1u) << (7 - used_++ % 8));
    }
    return *this;
  }
  SizeBitWriter& Golomb(std::uint32_t value) {
    int size = 0;
    while ((value + 1) >> (size + 1) != 0) {
      ++size;
    }
    return Bits(0, size).Bits(value + 1, size + 1);
  }
  SizeBitWriter& SignedGolomb(int value) {
    return Golomb(static_cast<std::uint32_t>(value > 0 ? 2 * value - 1 : -2 * value));
  }
  const std::vector<unsigned char>& Bytes() const { return bytes_; }

 private:
  std::vector<unsigned char> bytes_;
  int used_ = 0;
};

// What a high-profile set has up to its cropping rectangle: 40 x 23 macroblocks.
SizeBitWriter HighSet(bool lists) {
  SizeBitWriter set;
  set.Bits(100, 8).Bits(0, 8).Bits(30, 8).Golomb(0).Golomb(1).Golomb(0).Golomb(0).Bits(0, 1);
  set.Bits(lists ? 1 : 0, 1);
  if (lists) {
    // One list that is not there, one of 16 entries, one that ends early, five more.
    set.Bits(0, 1).Bits(1, 1);
    for (int i = 0; i < 16; ++i) {
      set.SignedGolomb(i % 2 != 0 ? 5 : -5);
    }
    set.Bits(1, 1).SignedGolomb(3).SignedGolomb(-11);
    set.Bits(0, 3).Bits(0, 1).Bits(1, 1);
    for (int i = 0; i < 64; ++i) {
      set.SignedGolomb(1);
    }
  }
  set.Golomb(0).Golomb(2).Golomb(4).Bits(0, 1).Golomb(39).Golomb(22).Bits(1, 1).Bits(1, 1);
  return set;
}

TEST(PictureSize, PassesOverScalingListsAndRefusesImpossibleCropping) {
  for (const bool lists : {false, true}) {
    SizeBitWriter set =
        HighSet(lists).Bits(1, 1).Golomb(0).Golomb(0).Golomb(0).Golomb(4).Bits(0, 1);
    EXPECT_EQ(cms::FullH264Size(set.Bytes()), (PictureSize{640, 360}));
    SizeBitWriter whole = HighSet(lists).Bits(0, 1);
    EXPECT_EQ(cms::FullH264Size(whole.Bytes()), (PictureSize{640, 368}));
  }
  SizeBitWriter absurd = HighSet(false).Bits(1, 1).Golomb(200).Golomb(120).Golomb(0).Golomb(0);
  EXPECT_FALSE(cms::FullH264Size(absurd.Bytes()));
  const std::vector<unsigned char> whole = HighSet(true).Bits(0, 1).Bytes();
  for (std::size_t size = 0; size + 1 < whole.size(); ++size) {
    EXPECT_FALSE(cms::FullH264Size({whole.data(), size})) << size;
  }
}

}  // namespace
