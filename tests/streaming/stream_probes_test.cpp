#include "cms/streaming/stream_probes.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <string>

#include "cms/exports/stream_probe_exports.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using Data = std::vector<unsigned char>;

// Bits written most significant first.
class BitWriter {
 public:
  BitWriter& Put(std::uint32_t value, unsigned count) {
    while (count-- > 0) {
      if (used_++ % 8 == 0) {
        data_.push_back(0);
      }
      data_.back() = static_cast<unsigned char>(data_.back() | ((value >> count) & 1)
                                                                   << ((8 - used_ % 8) % 8));
    }
    return *this;
  }
  BitWriter& Golomb(std::uint32_t value) {
    const auto width = static_cast<unsigned>(std::bit_width(value + 1));
    return Put(0, width - 1).Put(value + 1, width);
  }
  // The bytes, with emulation prevention when they are an H.264 NAL unit.
  Data Bytes(bool nalUnit = false) const {
    Data out;
    int zeros = 0;
    for (const unsigned char byte : data_) {
      if (nalUnit && zeros >= 2 && byte <= 3) {
        out.push_back(3);
        zeros = 0;
      }
      zeros = byte == 0 ? zeros + 1 : 0;
      out.push_back(byte);
    }
    return out;
  }

 private:
  Data data_;
  unsigned used_ = 0;
};

struct Vol {
  bool verid = false;
  bool control = false;
  bool vbv = false;
  unsigned shape = 0;
  unsigned resolution = 25;
  int fixedIncrementBits = -1;  // -1: no fixed rate
  unsigned width = 704;
  unsigned height = 480;
  bool interlaced = false;

  Data Make() const {
    BitWriter bits;
    bits.Put(0, 1).Put(1, 8).Put(verid, 1);
    if (verid) {
      bits.Put(2, 4).Put(1, 3);
    }
    bits.Put(1, 4).Put(control, 1);
    if (control) {
      bits.Put(1, 2).Put(1, 1).Put(vbv, 1);
      if (vbv) {
        bits.Put(0x7FFFFFFF, 31).Put(0x2AAAAAAA, 31).Put(0x155, 17);
      }
    }
    bits.Put(shape, 2).Put(1, 1).Put(resolution, 16).Put(1, 1).Put(fixedIncrementBits >= 0, 1);
    if (fixedIncrementBits >= 0) {
      bits.Put(1, static_cast<unsigned>(fixedIncrementBits));
    }
    bits.Put(1, 1).Put(width, 13).Put(1, 1).Put(height, 13).Put(1, 1).Put(interlaced, 1);
    return bits.Bytes();
  }
};

std::string SizeOf(const Data& vol, bool halve) {
  const auto size = cms::Mpeg4Size(vol, halve);
  return size ? std::to_string(size->width) + "x" + std::to_string(size->height) : "none";
}

}  // namespace

TEST(VideoType, IsToldByTheFirstBytesAndReadsNoMoreThanItNeeds) {
  const struct {
    Data data;
    int type;
  } cases[] = {
      {{0, 0, 1, 0x65}, 3},
      {{0, 0, 0, 1, 0x67}, 1},
      {{0xFF, 0xD8, 0xFF, 0xE0}, 2},
      {{0, 1}, 0},
      {{}, 0},
      {{0, 0}, 0},
      {{0, 0, 0, 2}, 0},
      {{0xFF}, 0},
      {{0, 0, 1}, 3},
      {{0xFF, 0xD9}, 0},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(cms::VideoTypeOf(c.data), c.type) << testing::PrintToString(c.data);
  }
  const Data two = {0xFF, 0xD8};  // AddressSanitizer watches
  EXPECT_EQ(CMSGetVideoType(two.data()), 2);
}

TEST(StartCodeScans, AgreeWithAPlainLoopOverAllOffsets) {
  // The rule in its plainest form; bytes beyond the end match nothing.
  const auto plain = [](const Data& data, std::size_t pattern, auto matches) {
    std::size_t i = 0;
    while (i < data.size() && !(i + pattern <= data.size() && matches(&data[i]))) {
      ++i;
    }
    return i < static_cast<std::uint32_t>(data.size() - pattern) ? static_cast<int>(i + pattern)
                                                                 : -1;
  };
  const auto code = [](const unsigned char* p) { return p[0] == 0 && p[1] == 0 && p[2] == 1; };
  std::mt19937 random(1);
  const unsigned char alphabet[] = {0, 0, 0, 1, 1, 0xB6, 0x20, 0x2F, 0x67, 0x06, 0x30};
  for (int round = 0; round < 50000; ++round) {
    Data data(random() % 14);
    for (auto& byte : data) {
      byte = alphabet[random() % std::size(alphabet)];
    }
    ASSERT_EQ(cms::Mpeg4VopDataPos(data),
              plain(data, 4, [&](auto p) { return code(p) && p[3] == 0xB6; }))
        << testing::PrintToString(data);
    ASSERT_EQ(cms::Mpeg4VolDataPos(data),
              plain(data, 4, [&](auto p) { return code(p) && p[3] >= 0x20 && p[3] <= 0x2F; }))
        << testing::PrintToString(data);
    for (const int type : {7, 6}) {
      ASSERT_EQ(
          type == 7 ? cms::H264SpsDataPos(data) : cms::H264SeiDataPos(data),
          plain(data, 5, [&](auto p) { return p[0] == 0 && code(p + 1) && (p[4] & 0x1F) == type; }))
          << testing::PrintToString(data);
    }
  }
}

TEST(StartCodeScans, ShortDataHasAnOffsetBeyondItsEnd) {
  const Data sps = {0, 0, 0, 1, 0x67, 0x42, 0, 0x1E};
  EXPECT_EQ(CMSGetH264SPSDataPos(sps.data(), 8), 5);
  EXPECT_EQ(CMSGetH264SPSDataPos(sps.data(), 5), -1) << "nothing behind the header";
  EXPECT_EQ(CMSGetH264SPSDataPos(sps.data(), 3), 8);
  EXPECT_EQ(CMSGetH264SEIData(sps.data(), 4), 9);
  EXPECT_EQ(CMSGetMPEG4VopDataPos(sps.data(), 0), 4);
  EXPECT_EQ(CMSGetMPEG4VOLDataPos(sps.data(), 3), 7);
  EXPECT_FALSE(cms::StartsWithMpeg4IVop(Data{0, 0, 1}));
}

TEST(Mpeg4Size, ReadsEveryLayout) {
  EXPECT_EQ(SizeOf(Vol{}.Make(), true), "704x480");
  EXPECT_EQ(SizeOf(Vol{.verid = true, .control = true, .vbv = true}.Make(), false), "704x480");
  EXPECT_EQ(SizeOf(Vol{.interlaced = true}.Make(), true), "352x240");
  EXPECT_EQ(SizeOf(Vol{.interlaced = true}.Make(), false), "704x480");
  EXPECT_EQ(SizeOf(Vol{.shape = 1}.Make(), false), "none");
  // The increment's width is the bit length of the resolution itself.
  EXPECT_EQ(SizeOf(Vol{.resolution = 1024, .fixedIncrementBits = 11}.Make(), false), "704x480");
  EXPECT_EQ(SizeOf(Vol{.resolution = 1023, .fixedIncrementBits = 10}.Make(), false), "704x480");
  EXPECT_EQ(SizeOf(Vol{.resolution = 0, .fixedIncrementBits = 1}.Make(), false), "704x480");
  Data cut = Vol{}.Make();
  cut.pop_back();
  EXPECT_EQ(SizeOf(cut, false), "none");

  Data frame = {0, 0, 1, 0x2A};
  const Data vol = Vol{.width = 8191, .height = 1, .interlaced = true}.Make();
  frame.insert(frame.end(), vol.begin(), vol.end());
  const int pos = CMSGetMPEG4VOLDataPos(frame.data(), static_cast<unsigned>(frame.size()));
  int width = 0;
  int height = -1;
  EXPECT_EQ(CMSGetMPEG4WidthAndHeight(frame.data(), pos, &width, &height, 0), 1);
  EXPECT_EQ(width, 8191);
  EXPECT_EQ(height, 1);
}

TEST(H264Size, ReadsEveryOrderCountTypeAndRefusesBrokenSets) {
  const auto head = [] {
    BitWriter bits;
    bits.Put(66, 8).Put(0, 8).Put(30, 8).Golomb(0).Golomb(0);
    return bits;
  };
  const auto size = [](const BitWriter& bits) {
    return cms::H264Size(bits.Bytes(true)).value_or(cms::PictureSize{-1, -1});
  };
  using cms::PictureSize;
  const auto tail = [](BitWriter& bits, unsigned width, unsigned height) {
    return bits.Golomb(1).Put(0, 1).Golomb(width / 16 - 1).Golomb(height / 16 - 1).Put(0xFF, 8);
  };
  auto bits = head();
  EXPECT_EQ(size(tail(bits.Golomb(0).Golomb(12), 1920, 1088)), (PictureSize{1920, 1080}));
  bits = head();
  EXPECT_EQ(size(tail(bits.Golomb(2), 1280, 720)), (PictureSize{1280, 720}));
  bits = head();
  EXPECT_EQ(size(tail(bits.Golomb(2), 2592, 1952)), (PictureSize{2592, 1944}));
  bits = head();
  EXPECT_EQ(size(tail(bits.Golomb(2), 800, 608)), (PictureSize{800, 600}));
  bits = head();
  EXPECT_EQ(size(tail(bits.Golomb(0).Golomb(13), 1280, 720)), (PictureSize{-1, -1}));

  // Type 1 with the longest cycle of numbers so long that they need emulation prevention.
  bits = head();
  bits.Golomb(1).Put(0, 1).Golomb(5).Golomb(6).Golomb(255);
  for (int i = 0; i < 255; ++i) {
    bits.Golomb(0x00FFFFFF);
  }
  const auto longSet = tail(bits, 640, 480);
  EXPECT_GT(longSet.Bytes(true).size(), longSet.Bytes(false).size()) << "case lost its point";
  EXPECT_EQ(size(longSet), (PictureSize{640, 480}));
  bits = head();
  EXPECT_EQ(size(bits.Golomb(1).Put(0, 1).Golomb(5).Golomb(6).Golomb(256).Put(0xFFFFFFFF, 32)),
            (PictureSize{-1, -1}));

  BitWriter level3;  // its 03 behind a single 00 is no emulation prevention
  level3.Put(66, 8).Put(0, 8).Put(3, 8).Golomb(0).Golomb(0).Golomb(2);
  EXPECT_EQ(size(tail(level3, 1280, 720)), (PictureSize{1280, 720}));

  EXPECT_FALSE(cms::H264Size(Data(100, 0))) << "a code of nothing but zeros";
  EXPECT_FALSE(cms::H264Size(Data{66, 0, 30}));
}

TEST(SeiMessage, NumbersAbove254AreSums) {
  const Data message = {0xFF, 0xFF, 0x05, 0xFF, 0x00, 0xAA};
  unsigned type = 0;
  unsigned size = 0;
  EXPECT_EQ(CMSGetH264SEIMessageData(message.data(), &type, &size), 5);
  EXPECT_EQ(type, 515u);
  EXPECT_EQ(size, 255u);
  EXPECT_FALSE(cms::ParseSeiMessage(Data{5, 0xFF, 0xFF}));
}

TEST(MjpegSize, KnowsSof0OnlyAndNeverLooksPastTheEnd) {
  Data jpeg = {0xFF, 0xD8, 0xFF, 0xFF, 0xC0, 0, 0x11, 8, 0x01, 0xE0, 0x02, 0x80};
  EXPECT_EQ(cms::MjpegSize(jpeg), (cms::PictureSize{640, 480}));
  int width = -1;
  int height = -1;
  CMSGetMJPEGWidthAndHeight(jpeg.data(), 2, &width, &height);
  EXPECT_EQ(width, 0);
  EXPECT_EQ(height, 0);
  jpeg.pop_back();
  EXPECT_EQ(cms::MjpegSize(jpeg), (cms::PictureSize{0, 0}));
  jpeg.push_back(0x80);
  jpeg[4] = 0xC2;
  EXPECT_EQ(cms::MjpegSize(jpeg), (cms::PictureSize{0, 0}));
}

TEST(SystemTime, IsOneDayLateAndCarriesOver) {
  const cms::CMSSystemTime epoch{1970, 1, 4, 1, 0, 0, 0, 999};
  std::int64_t seconds = 0;
  EXPECT_EQ(SystemTimeTotime_t(&epoch, &seconds), 86400);
  EXPECT_EQ(seconds, 86400);
  const cms::CMSSystemTime leap{2024, 2, 0, 28, 23, 59, 59, 0};
  EXPECT_EQ(cms::SystemTimeToSeconds(leap), 1709251199) << "2024-02-29 23:59:59";
  const cms::CMSSystemTime late{2039, 12, 0, 31, 0, 0, 0, 0};
  EXPECT_EQ(cms::SystemTimeToSeconds(late), 2208988800) << "2040-01-01, in any time zone";
}

TEST(Probes, ReadWhatRealEncodersWrite) {
  for (const auto& [width, height] : {std::pair{640, 480}, {1280, 720}, {1920, 1080}}) {
    test::ClipSpec spec{.width = width, .height = height, .frames = 3, .gop = 2};
    const cms::PictureSize size{width, height};

    const auto h264 = test::EncodeClip(spec);
    EXPECT_EQ(cms::VideoTypeOf(h264[0].data), cms::CMS_VIDEO_H264);
    const int sps = cms::H264SpsDataPos(h264[0].data);
    ASSERT_GT(sps, 0);
    EXPECT_EQ(cms::H264Size(cms::Bytes(h264[0].data).subspan(static_cast<std::size_t>(sps))), size);
    EXPECT_EQ(cms::H264SpsDataPos(h264[1].data), -1);

    spec.codec = test::ClipCodec::kMjpeg;
    const auto mjpeg = test::EncodeClip(spec);
    EXPECT_EQ(cms::VideoTypeOf(mjpeg[0].data), cms::CMS_VIDEO_MJPEG);
    EXPECT_EQ(cms::MjpegSize(mjpeg[0].data), size);

    spec.codec = test::ClipCodec::kMpeg4;
    const auto mpeg4 = test::EncodeClip(spec);
    EXPECT_EQ(cms::VideoTypeOf(mpeg4[0].data), cms::CMS_VIDEO_MPEG4);
    const int vol = cms::Mpeg4VolDataPos(mpeg4[0].data);
    ASSERT_GT(vol, 0);
    EXPECT_EQ(
        cms::Mpeg4Size(cms::Bytes(mpeg4[0].data).subspan(static_cast<std::size_t>(vol)), true),
        size);
    for (const auto& frame : mpeg4) {
      const auto& data = frame.data;
      const int vop = CMSGetMPEG4VopDataPos(data.data(), static_cast<unsigned>(data.size()));
      ASSERT_GT(vop, 0);
      EXPECT_EQ(CMSGetMPEG4FrameType(data.data(), vop), frame.key ? 1 : 2);
    }
  }
}
