// The sound of today's cameras, and when its blocks and the pictures beside them were taken.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "cms/live/media/frame.h"
#include "cms/live/media/frame_header.h"
#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

using test::H264Packets;
using test::RtpText;
using test::ScriptedRtspServer;
using test::WaitFor;
using testing::HasSubstr;

namespace {

constexpr std::uint64_t kNtp1970 = 2'208'988'800;
constexpr std::int64_t kCameraSeconds = 1'000'000'000;  // 2001: a camera that nobody set

std::string SdpOf(const std::string& sound) {
  return "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\na=control:trackID=0\r\n"
         "m=audio 0 RTP/AVP 97\r\na=rtpmap:97 " +
         sound + "\r\na=control:trackID=1\r\n";
}

std::string Bytes32(std::uint64_t value) {
  std::string bytes;
  for (int shift = 24; shift >= 0; shift -= 8) {
    bytes += static_cast<char>(value >> shift);
  }
  return bytes;
}

std::string SenderReport(std::int64_t cameraSeconds, std::uint32_t timestamp) {
  return std::string("\x80\xc8\0\6SSRC", 8) +
         Bytes32(static_cast<std::uint64_t>(cameraSeconds) + kNtp1970) + Bytes32(0x80000000) +
         Bytes32(timestamp) + std::string(8, '\0');
}

struct Heard {
  cms::FrameView frame;  // without its bytes
  cms::FrameMoment moment;
  std::string payload;
  cms::AudioFormatDescriptor format;
};

class Listener final : public CMSRTSPClient {
 public:
  Listener() { AllocChannelData(1); }
  ~Listener() override { CloseStream(); }

  void OnGetVideoFrame(void* header, int headerSize, void* data, int size, unsigned channel,
                       int frameType) override {
    Note(header, headerSize, data, size, pictures_);
    CMSRTSPClient::OnGetVideoFrame(header, headerSize, data, size, channel, frameType);
  }
  void OnGetAudioFrame(void* header, int headerSize, void* data, int size,
                       unsigned channel) override {
    Note(header, headerSize, data, size, blocks_);
    CMSRTSPClient::OnGetAudioFrame(header, headerSize, data, size, channel);
  }

  std::vector<Heard> Pictures() const { return Copy(pictures_); }
  std::vector<Heard> Blocks() const { return Copy(blocks_); }

 private:
  std::vector<Heard> Copy(const std::vector<Heard>& list) const {
    std::lock_guard lock(mutex_);
    return list;
  }
  void Note(void* header, int headerSize, void* data, int size, std::vector<Heard>& list) {
    Heard heard;
    heard.frame = cms::FrameOf(header, headerSize, data, size, 0, 0);
    heard.moment = GetFrameMoment();
    heard.payload.assign(static_cast<char*>(data), static_cast<std::size_t>(size));
    std::memcpy(&heard.format, static_cast<char*>(header) + 16, sizeof heard.format);
    std::lock_guard lock(mutex_);
    list.push_back(heard);
  }

  mutable std::mutex mutex_;
  std::vector<Heard> pictures_;
  std::vector<Heard> blocks_;
};

void Open(Listener& client, const ScriptedRtspServer& server, int transport,
          bool todaysCameras = true) {
  cms::stRTSPClientConfig config = test::ConfigFor(server.Url(), transport);
  config.todaysCameras = todaysCameras;
  ASSERT_EQ(client.SetConfig(&config), 1);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  client.Play();
}

class OverEach : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Transport, OverEach,
                         testing::Values(cms::kRtspTransportUdp, cms::kRtspTransportInterleaved));

TEST_P(OverEach, AacComesAsBlocksWithTheirFormatAndTheCamerasTime) {
  ScriptedRtspServer server(
      {.sdp = SdpOf("mpeg4-generic/16000/1\r\na=fmtp:97 streamtype=5; mode=AAC-hbr; "
                    "config=1408; SizeLength=13; IndexLength=3; IndexDeltaLength=3")});
  Listener client;
  Open(client, server, GetParam());
  tCMSAudioPlayerConfig format;
  ASSERT_EQ(client.GetAudioFormat(&format), 1);
  EXPECT_EQ(format.codecId, cms::CMS_CODEC_AAC);
  EXPECT_EQ(format.sampleRate, 16'000u);
  EXPECT_EQ(client.GetAudioEncoding(), "MPEG4-GENERIC");
  EXPECT_EQ(client.GetConnectionStatus().sound, "");

  H264Packets packets;
  const std::string units = std::string(40, 'a') + std::string(50, 'b');
  const std::string packet = std::string("\0\x20\x01\x40\x01\x90", 6) + units;
  const auto sound = [&](std::uint16_t sequence, std::uint32_t timestamp) {
    server.SendRtp(
        1,
        RtpText({.payloadType = 97, .marker = true, .sequence = sequence, .timestamp = timestamp},
                packet));
  };
  // Half a second past the camera's full second, at these RTP times.
  sound(1, 0xFFFFFFFF);
  ASSERT_TRUE(WaitFor([&] { return client.Blocks().size() == 2; }));
  server.SendRtcp(1, SenderReport(kCameraSeconds, 0xFFFFFFFF - 8'000));
  std::uint16_t sequence = 1;
  std::vector<Heard> blocks;
  ASSERT_TRUE(WaitFor([&] {
    sound(++sequence, 0xFFFFFFFF);
    blocks = client.Blocks();
    return blocks.size() % 2 == 0 && blocks.back().moment.cameraUs != 0;  // whole packets
  }));
  EXPECT_EQ(blocks[0].moment.cameraUs, 0) << "no report yet";
  const Heard& last = blocks.back();
  EXPECT_EQ(last.payload.size(), 57u);
  EXPECT_EQ(last.payload.substr(7), std::string(50, 'b')) << "behind its ADTS header";
  EXPECT_EQ(last.format.codecId, static_cast<std::uint32_t>(cms::CMS_CODEC_AAC));
  EXPECT_EQ(last.format.sampleRate, 16'000u);
  EXPECT_EQ(last.format.channels, 1);
  // The second unit of a packet: 8,000 and 1,024 samples behind the report.
  EXPECT_EQ(last.moment.cameraUs, kCameraSeconds * 1'000'000 + 500'000 + 500'000 + 64'000);
  EXPECT_EQ(last.frame.timeUs, last.moment.timeUs) << "the header tells it";
  EXPECT_EQ(last.frame.seconds, last.moment.timeUs / 1'000'000);
}

TEST(TodaysSound, LatmComesAsTheSameBlocks) {
  ScriptedRtspServer server(
      {.sdp = SdpOf("MP4A-LATM/90000\r\na=fmtp:97 profile-level-id=15;object=2;cpresent=0;"
                    "config=400028103fc0")});
  Listener client;
  Open(client, server, cms::kRtspTransportInterleaved);
  const std::string unit(300, 'u');
  const test::RtpFields header{.payloadType = 97, .marker = true, .sequence = 1};
  ASSERT_TRUE(WaitFor([&] {
    server.SendRtp(1, RtpText(header, "\xFF\x2D" + unit));
    return !client.Blocks().empty();
  }));
  EXPECT_EQ(client.Blocks()[0].payload.substr(7), unit);
  EXPECT_EQ(client.Blocks()[0].format.codecId, static_cast<std::uint32_t>(cms::CMS_CODEC_AAC));
  EXPECT_EQ(client.Blocks()[0].format.sampleRate, 16'000u);
}

TEST(TodaysSound, G726ComesAsItLiesInItsPackets) {
  const std::pair<const char*, int> kinds[] = {{"G726-32/8000", cms::CMS_CODEC_G726_32},
                                               {"G726-16/8000", cms::CMS_CODEC_G726_16},
                                               {"aal2-g726-40/8000", cms::CMS_CODEC_G726_AAL2_40}};
  for (const auto& [name, codec] : kinds) {
    ScriptedRtspServer server({.sdp = SdpOf(name)});
    Listener client;
    Open(client, server, cms::kRtspTransportInterleaved);
    const std::string block(80, '\x5A');
    server.SendRtp(1, RtpText({.payloadType = 97, .sequence = 1}, block));
    server.SendRtp(1, RtpText({.payloadType = 97, .sequence = 2}, block));
    server.SendRtp(1, RtpText({.payloadType = 97, .sequence = 3}, block));
    ASSERT_TRUE(WaitFor([&] { return client.Blocks().size() >= 2; })) << name;
    EXPECT_EQ(client.Blocks()[0].payload, block);
    EXPECT_EQ(client.Blocks()[0].format.codecId, static_cast<std::uint32_t>(codec)) << name;
    EXPECT_EQ(client.Blocks()[0].format.sampleRate, 8'000u);
  }
}

TEST(TodaysSound, ThatIsNotUnderstoodIsNamedAndThePicturesCome) {
  const std::pair<const char*, const char*> kinds[] = {
      {"opus/48000/2", "OPUS/48000 is not understood"},
      {"mpeg4-generic/16000\r\na=fmtp:97 mode=CELP-cbr", "MPEG4-GENERIC/16000: mode CELP-cbr"}};
  for (const auto& [name, problem] : kinds) {
    ScriptedRtspServer server({.sdp = SdpOf(name)});
    Listener client;
    Open(client, server, cms::kRtspTransportInterleaved);
    EXPECT_EQ(server.Count("SETUP"), 1u);
    EXPECT_THAT(client.GetConnectionStatus().sound, HasSubstr(problem));
    EXPECT_EQ(client.GetConnectionStatus().fault, cms::ConnectionFault::kNone);
    H264Packets packets;
    for (int i = 0; i < 3; ++i) {
      server.SendRtp(0, packets.KeyFrame());
    }
    EXPECT_TRUE(WaitFor([&] { return client.Pictures().size() >= 2; }));
  }
}

TEST(TodaysSound, AsSpecifiedAacIsLeftOutAndHeadersTellSecondsAlone) {
  ScriptedRtspServer server({.sdp = SdpOf("mpeg4-generic/16000\r\na=fmtp:97 config=1408")});
  Listener client;
  Open(client, server, cms::kRtspTransportInterleaved, false);
  EXPECT_EQ(server.Count("SETUP"), 1u);
  EXPECT_EQ(client.GetConnectionStatus().sound,
            "MPEG4-GENERIC/16000 is not understood (PCMU, PCMA and L16 are)");
  H264Packets packets;
  for (int i = 0; i < 4; ++i) {
    server.SendRtp(0, packets.KeyFrame());
  }
  ASSERT_TRUE(WaitFor([&] { return client.Pictures().size() >= 2; }));
  EXPECT_EQ(client.Pictures()[0].frame.timeUs, 0);
  EXPECT_NE(client.Pictures()[0].frame.seconds, 0u);
}

}  // namespace
