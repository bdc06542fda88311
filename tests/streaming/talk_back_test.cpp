#include "cms/streaming/internal/talk_back.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "tests/support/rtsp_camera.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/tls_front.h"
#include "tests/support/wait.h"

namespace {

constexpr char kViewing[] =
    "v=0\r\ns=x\r\na=control:*\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
    "m=audio 0 RTP/AVP 0\r\na=recvonly\r\na=control:listen\r\n";

TEST(TalkBack, BackchannelsAreTakenOutOfADescription) {
  const std::string back =
      "m=audio 0 RTP/AVP 8\r\na=sendonly\r\na=control:speak\r\na=rtpmap:8 PCMA/8000\r\n";
  const std::string metadata = "m=application 0 RTP/AVP 107\r\na=sendonly\r\n";
  for (const std::string& text : {kViewing + back + metadata, kViewing + metadata + back}) {
    const auto split = cms::SplitTalkBack(text);
    EXPECT_EQ(split.viewing, kViewing + metadata);
    EXPECT_EQ(split.talk.payloadType, 8);
    EXPECT_STREQ(split.talk.control, "speak");
    EXPECT_EQ(cms::TalkBackFormat(split.talk).codecId, cms::CMS_CODEC_PCM_ALAW);
    EXPECT_EQ(cms::TalkBackFormat(split.talk).sampleRate, 8000u);
  }
  // Of several the first that we can speak; none of what merely looks like one.
  const auto several = cms::SplitTalkBack(
      kViewing + std::string("m=audio 0 RTP/AVP 99\na=rtpmap:99 MPEG4-GENERIC/16000\na=sendonly\n"
                             "m=audio 0 RTP/AVP 97\na=rtpmap:97 L16/16000/2\na=sendonly"));
  EXPECT_STREQ(several.talk.encodingName, "L16");
  EXPECT_EQ(cms::TalkBackFormat(several.talk).channels, 2u);
  EXPECT_EQ(several.viewing, kViewing);
  const std::string other = "m=audio 0 RTP/AVP 0\r\na=sendonlyish\r\ni=a=sendonly\r\n";
  EXPECT_EQ(cms::SplitTalkBack(kViewing + other).talk.payloadType, cms::kNoPayloadType);
  EXPECT_EQ(cms::SplitTalkBack(other).viewing, other);
  EXPECT_EQ(cms::SplitTalkBack("").viewing, "");
}

TEST(TalkBack, PacketsGoOnWithTheSamplesAndAfterAPauseWithTheClock) {
  _RTSPSUBSESSION_CONFIG talk;
  talk.payloadType = 97;
  talk.SetEncodingName("L16");
  talk.clockRate = 16000;
  std::vector<std::vector<std::uint8_t>> packets;
  bool full = false;
  cms::TalkBackSender sender;
  unsigned char sound[3001] = {};
  EXPECT_EQ(sender.Send(sound, 100), 0) << "not started";
  sender.Start(talk, [&](std::span<const std::uint8_t> packet) {
    packets.emplace_back(packet.begin(), packet.end());
    return !full;
  });
  EXPECT_EQ(sender.Send(sound, 3001), 3000) << "half a sample is none";
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(sender.Send(sound, 2), 2);
  full = true;
  EXPECT_EQ(sender.Send(sound, 2), 0);
  sender.Stop();
  EXPECT_EQ(sender.Send(sound, 2), 0);
  ASSERT_EQ(packets.size(), 5u);
  const auto word = [&](std::size_t packet, std::size_t at) {
    const auto& bytes = packets[packet];
    return std::uint32_t{bytes[at]} << 24 | std::uint32_t{bytes[at + 1]} << 16 |
           std::uint32_t{bytes[at + 2]} << 8 | bytes[at + 3];
  };
  EXPECT_EQ(packets[0].size() + packets[1].size() + packets[2].size(), 3000u + 3 * 12);
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(packets[i][0], 0x80);
    EXPECT_EQ(packets[i][1], i == 0 || i == 3 ? 97 | 0x80 : 97) << "marked where speech begins";
    EXPECT_EQ(word(i, 8), word(0, 8));
  }
  EXPECT_EQ(std::uint16_t(word(3, 0)), std::uint16_t(word(0, 0) + 3));
  EXPECT_EQ(word(1, 4) - word(0, 4), 700u);
  EXPECT_GE(word(3, 4) - word(0, 4), 1500u + 16000 * 3 / 10);
}

struct TalkWay {
  int transport;
  bool tls;
};

class TalkingTo : public testing::TestWithParam<TalkWay> {
 protected:
  void TearDown() override { std::filesystem::remove(heard_); }

  // Says a second of sound to a camera of its own; what was said, and what the camera wrote of it.
  void Talk(std::string& said, std::string& heard) {
    namespace fs = std::filesystem;
    said.clear();
    fs::remove(heard_);
    {
      const test::RtspCamera camera({"--audio", "pcma", "--talk", heard_.string()});
      test::RtspTestClient client;
      const test::Certificate certificate("127.0.0.1");
      const test::TlsFront front(camera.Port(), certificate);
      cms::stRTSPClientConfig config = test::ConfigFor(
          GetParam().tls ? front.Url(camera.Url()) : camera.Url(), GetParam().transport);
      config.certificate = cms::CertificateCheck::kPinned;
      config.certificateFingerprint = certificate.Fingerprint();
      config.talkBack = true;
      ASSERT_EQ(client.SetConfig(&config), 1);
      unsigned char block[160] = {};
      EXPECT_EQ(client.SendAudioData(block, 160), 0) << "not connected";
      ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
      ASSERT_EQ(client.Play(), 1);
      tCMSAudioPlayerConfig format;
      ASSERT_EQ(client.GetTalkFormat(&format), 1);
      EXPECT_EQ(format.codecId, cms::CMS_CODEC_PCM_MULAW);
      EXPECT_EQ(client.GetAudioEncoding(), "PCMA") << "what is heard from the camera";
      for (int i = 0; i < 50; ++i) {
        std::fill(std::begin(block), std::end(block), static_cast<unsigned char>(i));
        ASSERT_EQ(client.SendAudioData(block, 160), 160);
        said.append(reinterpret_cast<const char*>(block), 160);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      test::WaitFor([&] {
        std::error_code ignored;
        return fs::file_size(heard_, ignored) >= said.size();
      });
      EXPECT_TRUE(
          test::WaitFor([&] { return !client.Video().empty() && !client.Audio().empty(); }));
    }
    std::ifstream file(heard_, std::ios::binary);
    heard.assign(std::istreambuf_iterator<char>(file), {});
  }

  const std::filesystem::path heard_ =
      std::filesystem::temp_directory_path() /
      ("orvanta-heard-" + std::to_string(::getpid()) + std::to_string(GetParam().transport));
};

// GStreamer's server now and then never reads the port that it gave for what is said: datagrams
// stay in its socket (ss -uanp shows them). It is asked anew then, but what it hears is heard
// whole.
TEST_P(TalkingTo, ACameraIsHeardThereByteByByte) {
  std::string said;
  std::string heard;
  const int attempts = GetParam().transport == cms::kRtspTransportUdp ? 5 : 1;
  for (int i = 0; i < attempts && heard.empty(); ++i) {
    Talk(said, heard);
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_EQ(heard, said);
}

INSTANTIATE_TEST_SUITE_P(OverEach, TalkingTo,
                         testing::Values(TalkWay{cms::kRtspTransportUdp, false},
                                         TalkWay{cms::kRtspTransportInterleaved, false},
                                         TalkWay{cms::kRtspTransportInterleaved, true},
                                         TalkWay{cms::kRtspTransportHttp, false},
                                         TalkWay{cms::kRtspTransportHttp, true}));

TEST(TalkBack, ACameraWithoutABackchannelIsViewedAsUsual) {
  const test::RtspCamera camera;
  test::RtspTestClient client;
  cms::stRTSPClientConfig config = test::ConfigFor(camera.Url(), cms::kRtspTransportInterleaved);
  config.talkBack = true;
  client.SetConfig(&config);
  ASSERT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
  client.Play();
  tCMSAudioPlayerConfig format;
  EXPECT_EQ(client.GetTalkFormat(&format), 0);
  EXPECT_TRUE(test::WaitFor([&] { return !client.Video().empty(); }));
}

}  // namespace
