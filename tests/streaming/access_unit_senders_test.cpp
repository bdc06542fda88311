// Whole access units from senders that know nothing of ours: FFmpeg's RTP muxer and GStreamer's
// payloaders, with the streams of encoders as cameras have them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "tests/streaming/unit_receiver.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/ffmpeg_sender.h"
#include "tests/support/shell.h"

namespace {

using cms::NalCodec;
using Pictures = std::vector<std::vector<std::uint8_t>>;

constexpr std::size_t kPictures = 50;

struct Stream {
  NalCodec codec;
  int slices;
  bool delimiters;
  bool noise;  // pictures of many packets
};

void PrintTo(const Stream& stream, std::ostream* out) {
  *out << (stream.codec == NalCodec::kH264 ? "H264" : "H265") << '_' << stream.slices << "_slices"
       << (stream.delimiters ? "_delimiters" : "") << (stream.noise ? "_large" : "");
}

class SentBy : public testing::TestWithParam<Stream> {
 protected:
  SentBy() {
    const Stream& stream = GetParam();
    for (const auto& frame :
         test::EncodeClip({.codec = stream.codec == NalCodec::kH264 ? test::ClipCodec::kH264
                                                                    : test::ClipCodec::kH265,
         .frames = kPictures,
         .slices = stream.slices,
         .delimiters = stream.delimiters,
         .noise = stream.noise})) {
      pictures_.push_back(test::WithLongStartCodes(frame.data));
      keys_.push_back(frame.key);
    }
  }

  void ExpectAll(const test::RtpPackets& packets, const Pictures& pictures) {
    test::UnitReceiver receiver({GetParam().codec});
    receiver.Feed(packets);
    ASSERT_EQ(receiver.units.size(), kPictures);
    for (std::size_t i = 0; i < kPictures; ++i) {
      EXPECT_EQ(receiver.units[i].data, pictures[i]) << i;
      EXPECT_EQ(receiver.units[i].key, keys_[i]) << i;
      EXPECT_TRUE(receiver.units[i].decodable) << i;
      EXPECT_EQ(receiver.units[i].newSize.has_value(), i == 0) << i;
    }
    EXPECT_EQ(receiver.units[0].newSize, (cms::PictureSize{320, 240}));
  }

  Pictures pictures_;
  std::vector<bool> keys_;
};

std::string NameOf(const testing::TestParamInfo<Stream>& info) {
  return testing::PrintToString(info.param);
}

INSTANTIATE_TEST_SUITE_P(, SentBy,
                         testing::Values(Stream{NalCodec::kH264, 1, false, false},
                                         Stream{NalCodec::kH264, 4, false, true},
                                         Stream{NalCodec::kH264, 4, true, false},
                                         Stream{NalCodec::kH264, 1, true, true},
                                         Stream{NalCodec::kH265, 1, false, false},
                                         Stream{NalCodec::kH265, 4, true, true},
                                         Stream{NalCodec::kH265, 1, true, true}),
                         NameOf);

TEST_P(SentBy, FFmpegAllPicturesArriveAsTheyWereEncoded) {
  ExpectAll(test::MuxRtp(GetParam().codec == NalCodec::kH264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC,
                         pictures_),
            pictures_);
}

// Each block behind its length, 32 bits as this machine has them.
void WriteBlocks(const std::filesystem::path& path, const Pictures& blocks) {
  std::ofstream file(path, std::ios::binary);
  for (const auto& block : blocks) {
    const auto size = static_cast<std::uint32_t>(block.size());
    file.write(reinterpret_cast<const char*>(&size), sizeof size);
    file.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(size));
  }
}

Pictures ReadBlocks(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  Pictures blocks;
  for (std::uint32_t size = 0; file.read(reinterpret_cast<char*>(&size), sizeof size);) {
    blocks.emplace_back(size);
    file.read(reinterpret_cast<char*>(blocks.back().data()), static_cast<std::streamsize>(size));
  }
  return blocks;
}

TEST_P(SentBy, GStreamerAllPicturesArriveAsTheyWereEncoded) {
  const auto folder =
      std::filesystem::temp_directory_path() / ("orvanta-pay-" + std::to_string(::getpid()));
  std::filesystem::create_directory(folder);
  WriteBlocks(folder / "pictures", pictures_);
  const bool h264 = GetParam().codec == NalCodec::kH264;
  for (const char* const aggregate : {"none", "zero-latency"}) {
    SCOPED_TRACE(aggregate);
    const auto sent = test::RunShell(
        std::string(GSTREAMER_PAYLOADER) + std::string(h264 ? " h264 " : " h265 ") + aggregate +
        " <" + (folder / "pictures").string() + " >" + (folder / "packets").string());
    ASSERT_EQ(sent.status, 0) << sent.errors;
    ExpectAll(ReadBlocks(folder / "packets"), pictures_);
  }
  std::filesystem::remove_all(folder);
}

}  // namespace
