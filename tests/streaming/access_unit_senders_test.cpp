// Site clients receive senders that know nothing of ours: FFmpeg's RTP muxer and GStreamer's
// payloaders, with the streams of encoders as cameras have them.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "cms/streaming/internal/nal_unit.h"
#include "tests/streaming/playing_client.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/ffmpeg_sender.h"
#include "tests/support/shell.h"

namespace {

using cms::NalCodec;
using Pictures = std::vector<std::vector<std::uint8_t>>;

constexpr std::size_t kPictures = 50;

struct SenderStream {
  NalCodec codec;
  int slices;
  bool delimiters;
  bool noise;  // pictures of many packets
};

void PrintTo(const SenderStream& stream, std::ostream* out) {
  *out << (stream.codec == NalCodec::kH264 ? "H264" : "H265") << '_' << stream.slices << "_slices"
       << (stream.delimiters ? "_delimiters" : "") << (stream.noise ? "_large" : "");
}

class SentBy : public testing::TestWithParam<SenderStream> {
 protected:
  SentBy() {
    const SenderStream& stream = GetParam();
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
    for (const int transport : {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved}) {
      test::PlayingClient site(
          test::VideoSdp(GetParam().codec == NalCodec::kH264 ? "H264" : "H265"), transport);
      ASSERT_TRUE(site.SendInStep(packets)) << site.Totals().videoFrames;
      site.ExpectPictures(pictures);
      const auto frames = site.client.Video();
      for (std::size_t i = 0; i < kPictures; ++i) {
        EXPECT_EQ(frames.at(i).type, keys_[i] ? 1 : 2) << i;
      }
      unsigned width = 0;
      unsigned height = 0;
      site.client.GetWidthAndHeight(0, &width, &height);
      EXPECT_EQ(width, 320u);
      EXPECT_EQ(height, 240u);
    }
  }

  Pictures pictures_;
  std::vector<bool> keys_;
};

std::string NameOf(const testing::TestParamInfo<SenderStream>& info) {
  return testing::PrintToString(info.param);
}

INSTANTIATE_TEST_SUITE_P(, SentBy,
                         testing::Values(SenderStream{NalCodec::kH264, 1, false, false},
                                         SenderStream{NalCodec::kH264, 4, false, true},
                                         SenderStream{NalCodec::kH264, 4, true, false},
                                         SenderStream{NalCodec::kH264, 1, true, true},
                                         SenderStream{NalCodec::kH265, 1, false, false},
                                         SenderStream{NalCodec::kH265, 4, true, true},
                                         SenderStream{NalCodec::kH265, 1, true, true}),
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
