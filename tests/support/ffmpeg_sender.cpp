#include "tests/support/ffmpeg_sender.h"

extern "C" {
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>

#include <algorithm>

namespace test {
namespace {

int CollectPacket(void* opaque, std::uint8_t* data, int size) {
  const bool isRtcp = size >= 2 && data[1] >= 200 && data[1] <= 204;
  if (!isRtcp) {
    static_cast<RtpPackets*>(opaque)->emplace_back(data, data + size);
  }
  return size;
}

}  // namespace

RtpPackets MuxRtp(AVCodecID codec, const std::vector<std::vector<std::uint8_t>>& frames,
                  const char* flags, const std::vector<std::uint8_t>& extradata,
                  std::string* description) {
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
  if (!extradata.empty()) {
    AVCodecParameters& parameters = *stream->codecpar;
    parameters.extradata =
        static_cast<std::uint8_t*>(av_mallocz(extradata.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    parameters.extradata_size = static_cast<int>(extradata.size());
    std::copy(extradata.begin(), extradata.end(), parameters.extradata);
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
  if (description != nullptr) {
    char text[4096] = "";
    EXPECT_GE(av_sdp_create(&format, 1, text, sizeof text), 0);
    *description = text;
  }
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

}  // namespace test
