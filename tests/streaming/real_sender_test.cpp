// Packets of a sender that knows nothing of ours: FFmpeg's RTP muxer.
#include <gtest/gtest.h>

#include <memory>

#include "cms/streaming/h264_rtp_processer.h"
#include "cms/streaming/mjpeg_rtp_processer.h"
#include "cms/streaming/mp4ves_rtp_processer.h"
#include "cms/streaming/rtsp_sub_session.h"
#include "cms/streaming/simple_rtp_processer.h"
#include "tests/streaming/frame_collector.h"
#include "tests/support/decoded_picture.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/ffmpeg_sender.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using test::FrameCollector;
using test::RtpPackets;
using Frames = std::vector<std::vector<std::uint8_t>>;

Frames SenderClip(const test::ClipSpec& spec) {
  Frames frames;
  for (auto& frame : test::EncodeClip(spec)) {
    frames.push_back(std::move(frame.data));
  }
  return frames;
}

}  // namespace

TEST(RealSender, H264) {
  const struct {
    const char* flags;  // mode 0 sends whole NAL units only, so its pictures must be small
    int width;
    int height;
    bool noise;
  } cases[] = {
      {nullptr, 320, 240, true}, {nullptr, 320, 240, false}, {"h264_mode0", 96, 64, false}};
  for (const auto& c : cases) {
    const Frames clip = SenderClip({.width = c.width,
                                    .height = c.height,
                                    .frames = 20,
                                    .gop = 5,
                                    .profile = test::ClipProfile::kHigh,
                                    .noise = c.noise});
    H264RTPProcesser processer;
    FrameCollector collector(processer);
    collector.Feed(test::MuxRtp(AV_CODEC_ID_H264, clip, c.flags));
    ASSERT_EQ(collector.frames.size(), 15u) << c.width << c.noise;
    for (std::size_t i = 0; i < 15; ++i) {
      EXPECT_EQ(collector.frames[i], test::WithLongStartCodes(clip[i + 5])) << c.width << i;
      EXPECT_EQ(collector.types[i], i % 5 == 0 ? 1 : 2);
    }
  }
}

TEST(RealSender, Mpeg4) {
  const Frames clip =
      SenderClip({.codec = test::ClipCodec::kMpeg4, .frames = 20, .gop = 5, .noise = true});
  MP4VESRTPProcesser processer;
  FrameCollector collector(processer);
  collector.Feed(test::MuxRtp(AV_CODEC_ID_MPEG4, clip));
  EXPECT_EQ(collector.frames, Frames(clip.begin() + 5, clip.end()));
}

TEST(RealSender, Mjpeg) {
  const Frames clip = SenderClip({.codec = test::ClipCodec::kMjpeg, .frames = 5, .noise = true});
  MJPEGRTPProcesser processer;
  FrameCollector collector(processer);
  collector.Feed(test::MuxRtp(AV_CODEC_ID_MJPEG, clip));
  ASSERT_EQ(collector.frames.size(), 4u);
  for (std::size_t i = 0; i < 4; ++i) {
    const auto picture = test::DecodePicture(AV_CODEC_ID_MJPEG, clip[i + 1]);
    ASSERT_FALSE(picture.empty());
    EXPECT_EQ(test::DecodePicture(AV_CODEC_ID_MJPEG, collector.frames[i]), picture) << i;
  }
}

TEST(RealSender, AudioComesWithoutMarkers) {
  Frames chunks;
  for (int i = 0; i < 20; ++i) {
    chunks.emplace_back(1460, static_cast<std::uint8_t>(i));  // a full packet each
  }
  const RtpPackets packets = test::MuxRtp(AV_CODEC_ID_PCM_MULAW, chunks);
  SimpleRTPProcesser byTheRule;
  FrameCollector none(byTheRule);
  none.Feed(packets);
  EXPECT_TRUE(none.frames.empty());

  struct : cms::RTSPFrameSink {
    void OnFrame(RTPProcesserBase&, std::span<std::uint8_t>) override {}
    void OnSound(std::span<std::uint8_t> block, std::uint32_t) override {
      heard.emplace_back(block.begin(), block.end());
    }
    void OnReport(bool, const cms::SenderReport&) override {}
    Frames heard;
  } sink;
  cms::RTSPSubSessionOptions options;
  options.video = false;
  options.sink = &sink;
  _RTSPSUBSESSION_CONFIG config;
  config.payloadType = 0;
  config.SetEncodingName("PCMU");
  RTSPSubSession session;
  ASSERT_EQ(session.SetConfig(config, options), 1);
  session.Play();
  for (const auto& packet : packets) {
    session.RTPOverRTSPAddPacket(packet.data(), static_cast<int>(packet.size()));
  }
  EXPECT_EQ(sink.heard, chunks);
}
