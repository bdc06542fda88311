// Packets of a sender that knows nothing of ours: FFmpeg's RTP muxer.
extern "C" {
#include <libavformat/avformat.h>
}

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
#include "tests/support/rtp_packetizer.h"

namespace {

using test::FrameCollector;
using test::RtpPackets;
using Frames = std::vector<std::vector<std::uint8_t>>;

int CollectPacket(void* opaque, std::uint8_t* data, int size) {
  const bool isRtcp = size >= 2 && data[1] >= 200 && data[1] <= 204;
  if (!isRtcp) {
    static_cast<RtpPackets*>(opaque)->emplace_back(data, data + size);
  }
  return size;
}

// The frames as the muxer sends them, 1472 bytes at most a packet.
RtpPackets Mux(AVCodecID codec, const Frames& frames, const char* flags = nullptr) {
  RtpPackets packets;
  AVFormatContext* format = nullptr;
  EXPECT_GE(avformat_alloc_output_context2(&format, nullptr, "rtp", nullptr), 0);
  AVStream* stream = avformat_new_stream(format, nullptr);
  const bool audio = avcodec_get_type(codec) == AVMEDIA_TYPE_AUDIO;
  stream->codecpar->codec_id = codec;
  stream->codecpar->codec_type = avcodec_get_type(codec);
  if (audio) {
    stream->codecpar->sample_rate = 8000;
    stream->codecpar->ch_layout = AV_CHANNEL_LAYOUT_MONO;
    stream->time_base = {1, 8000};
  } else {
    stream->codecpar->width = 320;
    stream->codecpar->height = 240;
    stream->codecpar->format = AV_PIX_FMT_YUVJ420P;
    stream->time_base = {1, 90000};
  }
  auto* buffer = static_cast<unsigned char*>(av_malloc(1472));
  format->pb = avio_alloc_context(buffer, 1472, 1, &packets, nullptr, CollectPacket, nullptr);
  format->pb->max_packet_size = 1472;
  AVDictionary* options = nullptr;
  av_dict_set(&options, "seq", "65500", 0);
  if (flags != nullptr) {
    av_dict_set(&options, "rtpflags", flags, 0);
  }
  EXPECT_GE(avformat_write_header(format, &options), 0);
  av_dict_free(&options);
  AVPacket* packet = av_packet_alloc();
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_GE(av_new_packet(packet, static_cast<int>(frames[i].size())), 0);
    std::copy(frames[i].begin(), frames[i].end(), packet->data);
    packet->pts = packet->dts = static_cast<std::int64_t>(i) * (audio ? 160 : 3600);
    EXPECT_GE(av_write_frame(format, packet), 0);
    av_packet_unref(packet);
  }
  av_write_trailer(format);
  av_packet_free(&packet);
  av_freep(&format->pb->buffer);
  avio_context_free(&format->pb);
  avformat_free_context(format);
  return packets;
}

Frames Clip(const test::ClipSpec& spec) {
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
    const Frames clip = Clip({.width = c.width,
                              .height = c.height,
                              .frames = 20,
                              .gop = 5,
                              .profile = test::ClipProfile::kHigh,
                              .noise = c.noise});
    H264RTPProcesser processer;
    FrameCollector collector(processer);
    collector.Feed(Mux(AV_CODEC_ID_H264, clip, c.flags));
    ASSERT_EQ(collector.frames.size(), 15u) << c.width << c.noise;
    for (std::size_t i = 0; i < 15; ++i) {
      EXPECT_EQ(collector.frames[i], test::WithLongStartCodes(clip[i + 5])) << c.width << i;
      EXPECT_EQ(collector.types[i], i % 5 == 0 ? 1 : 2);
    }
  }
}

TEST(RealSender, Mpeg4) {
  const Frames clip =
      Clip({.codec = test::ClipCodec::kMpeg4, .frames = 20, .gop = 5, .noise = true});
  MP4VESRTPProcesser processer;
  FrameCollector collector(processer);
  collector.Feed(Mux(AV_CODEC_ID_MPEG4, clip));
  EXPECT_EQ(collector.frames, Frames(clip.begin() + 5, clip.end()));
}

TEST(RealSender, Mjpeg) {
  const Frames clip = Clip({.codec = test::ClipCodec::kMjpeg, .frames = 5, .noise = true});
  MJPEGRTPProcesser processer;
  FrameCollector collector(processer);
  collector.Feed(Mux(AV_CODEC_ID_MJPEG, clip));
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
  const RtpPackets packets = Mux(AV_CODEC_ID_PCM_MULAW, chunks);
  SimpleRTPProcesser by_the_rule;
  FrameCollector none(by_the_rule);
  none.Feed(packets);
  EXPECT_TRUE(none.frames.empty());

  Frames heard;
  RTSPSubSessionOptions options;
  options.video = false;
  options.context = &heard;
  options.callback = [](void* context, unsigned char*, int, unsigned char* payload, int length,
                        int) {
    static_cast<Frames*>(context)->emplace_back(payload, payload + length);
  };
  _RTSPSUBSESSION_CONFIG config;
  config.payloadType = 0;
  config.SetEncodingName("PCMU");
  RTSPSubSession session;
  ASSERT_EQ(session.SetConfig(config, options), 1);
  session.Play();
  for (const auto& packet : packets) {
    session.RTPOverRTSPAddPacket(packet.data(), static_cast<int>(packet.size()));
  }
  EXPECT_EQ(heard, chunks);
}
