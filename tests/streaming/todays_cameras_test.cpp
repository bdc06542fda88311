// What a site client makes of the streams of today's cameras.
#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "tests/recording/recorder_site.h"
#include "tests/streaming/playing_client.h"
#include "tests/support/decoded_picture.h"
#include "tests/support/ffmpeg_sender.h"

namespace {

using test::PlayingClient;
using test::WaitFor;
using Pictures = std::vector<std::vector<std::uint8_t>>;

Pictures Clip(const test::ClipSpec& spec) {
  Pictures pictures;
  for (const auto& frame : test::EncodeClip(spec)) {
    pictures.push_back(test::WithLongStartCodes(frame.data));
  }
  return pictures;
}

test::RtpPackets PacketsOf(test::RtpPacketizer& rtp, const Pictures& pictures) {
  test::RtpPackets packets;
  for (const auto& picture : pictures) {
    for (auto& packet : rtp.H264(picture)) {
      packets.push_back(std::move(packet));
    }
  }
  return packets;
}

TEST(TodaysCameras, WithoutTheFieldTheOldRulesHold) {
  const Pictures pictures = Clip({.frames = 12, .gop = 4});
  test::RtpPacketizer rtp;
  const auto off = [](cms::stRTSPClientConfig& config) { config.todaysCameras = false; };
  PlayingClient old(test::VideoSdp("H264"), cms::kRtspTransportInterleaved, off);
  old.Send(PacketsOf(rtp, pictures));
  old.Send(PacketsOf(rtp, pictures));  // one packet more shows that the last one was whole
  ASSERT_TRUE(WaitFor([&] { return old.Totals().videoFrames >= 19; }));
  EXPECT_EQ(old.client.Video().at(0).payload, std::string(pictures[4].begin(), pictures[4].end()))
      << "the first group of pictures goes by";

  test::ScriptedRtspServer server({.sdp = test::VideoSdp("H265")});
  test::RtspTestClient refusing;
  cms::stRTSPClientConfig config = test::ConfigFor(server.Url(), cms::kRtspTransportInterleaved);
  off(config);
  refusing.SetConfig(&config);
  EXPECT_EQ(refusing.OpenStream(), 0);
  EXPECT_EQ(refusing.Fault(), cms::ConnectionFault::kNoUsableVideo);
}

TEST(TodaysCameras, OverUdpPacketsComeInOrderAndASenderThatStartsAnewIsFollowed) {
  const Pictures pictures = Clip({.frames = 50, .gop = 10, .noise = true});
  test::RtpPacketizer rtp(65'500);
  auto packets = PacketsOf(rtp, pictures);
  PlayingClient site(test::VideoSdp("H264"), cms::kRtspTransportUdp);
  std::size_t sent = 0;
  const auto sendMixed = [&](test::RtpPackets part) {
    for (std::size_t i = 1; i + 3 < part.size(); i += 4) {
      std::rotate(part.begin() + static_cast<std::ptrdiff_t>(i),
                  part.begin() + static_cast<std::ptrdiff_t>(i) + 1,
                  part.begin() + static_cast<std::ptrdiff_t>(i) + 3);
    }
    std::size_t looked = 0;
    std::size_t whole = 0;
    for (std::size_t at = 0; at < part.size(); at += 20) {  // what any socket takes at once
      const std::size_t end = std::min(at + 20, part.size());
      site.Send({part.begin() + static_cast<std::ptrdiff_t>(at),
                 part.begin() + static_cast<std::ptrdiff_t>(end)});
      // A busy machine reads late: on with the next when the pictures that are whole have come.
      for (; looked + 4 < end; ++looked) {
        whole += part[looked][1] >> 7;
      }
      EXPECT_TRUE(WaitFor([&] { return site.Totals().videoFrames >= sent + whole; }));
    }
    sent += pictures.size();
    return WaitFor([&] { return site.Totals().videoFrames >= sent; });
  };
  EXPECT_TRUE(sendMixed(packets)) << site.Totals().videoFrames;
  for (std::size_t i = packets.size() / 2; i < packets.size(); ++i) {
    packets[i][10] ^= 1;  // another name for the same sender, amid a group of pictures
  }
  for (auto& packet : packets) {  // numbers far away, another source
    packet[2] = static_cast<std::uint8_t>(packet[2] + 0x70);
    packet[11] ^= 1;
  }
  EXPECT_TRUE(sendMixed(packets)) << site.Totals().videoFrames;
  Pictures twice = pictures;
  twice.insert(twice.end(), pictures.begin(), pictures.end());
  site.ExpectPictures(twice);
  EXPECT_EQ(site.Totals().lostPackets, 0u);
}

// Cameras send from their answer to PLAY on, and that is part of OpenStream.
TEST(TodaysCameras, WhatComesBeforeTheClientPlaysIsNotLost) {
  const Pictures pictures = Clip({.frames = 4, .gop = 4});
  test::RtpPacketizer rtp;
  for (const int transport : {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved}) {
    // Half a second is what is kept for: a machine that stood still for that long is tried again.
    for (bool inTime = false; !inTime;) {
      PlayingClient site(test::VideoSdp("H264"), transport, {}, false);
      const auto packetsCame = [&](std::size_t i) {
        site.Send(rtp.H264(pictures[i]));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
      };
      const auto begun = std::chrono::steady_clock::now();
      packetsCame(0);
      packetsCame(1);
      EXPECT_EQ(site.client.Play(), 1);
      inTime = std::chrono::steady_clock::now() - begun < std::chrono::milliseconds(400);
      if (inTime) {
        packetsCame(2);
        packetsCame(3);
        EXPECT_TRUE(WaitFor([&] { return site.Totals().videoFrames == 4; })) << transport;
        site.ExpectPictures(pictures);
      }
    }

    PlayingClient late(test::VideoSdp("H264"), transport, {}, false);
    late.Send(rtp.H264(pictures[0]));
    std::this_thread::sleep_for(std::chrono::milliseconds(700));
    EXPECT_EQ(late.client.Play(), 1);
    late.Send(rtp.H264(pictures[1]));  // nothing without the one before
    late.Send(rtp.H264(pictures[0]));
    EXPECT_TRUE(WaitFor([&] { return late.Totals().videoFrames > 0; })) << transport;
    late.ExpectPictures({pictures[0]});
  }
}

TEST(TodaysCameras, BehindALossPicturesGoOnWithTheNextKeyPicture) {
  const Pictures pictures = Clip({.frames = 12, .gop = 4, .noise = true});
  test::RtpPacketizer rtp;
  for (const int transport : {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved}) {
    PlayingClient site(test::VideoSdp("H264"), transport);
    for (std::size_t i = 0; i < pictures.size(); ++i) {
      auto packets = rtp.H264(pictures[i]);
      ASSERT_GT(packets.size(), 2u);
      if (i == 5) {
        packets.erase(packets.begin() + 1);
      }
      site.Send(packets);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ASSERT_TRUE(WaitFor([&] { return site.Totals().videoFrames >= 9; }));
    Pictures expected(pictures.begin(), pictures.begin() + 5);
    expected.insert(expected.end(), pictures.begin() + 8, pictures.end());
    site.ExpectPictures(expected);
    EXPECT_EQ(site.Totals().lostPackets, 1u);
  }
}

// What a lost packet holds up over UDP does not wait for another one.
TEST(TodaysCameras, AStreamThatPausesBehindALossHandsItsLastPictureOn) {
  const Pictures pictures = Clip({.frames = 2, .gop = 1, .noise = true});
  test::RtpPacketizer rtp;
  PlayingClient site(test::VideoSdp("H264"), cms::kRtspTransportUdp);
  auto torn = rtp.H264(pictures[0]);
  torn.pop_back();
  site.Send(torn);
  site.Send(rtp.H264(pictures[1]));
  EXPECT_TRUE(WaitFor([&] { return site.Totals().videoFrames == 1; }));
  site.ExpectPictures({pictures[1]});
}

TEST(TodaysCameras, TheLastSupplementalUnitOfAPictureIsItsMetadata) {
  struct Site final : CMSRTSPClient {
    ~Site() override { CloseStream(); }
    void ConvertMetadataToDRVHeader(void* metadata, unsigned length, void* header,
                                    unsigned headerLength) override {
      EXPECT_EQ(headerLength, 116u);
      EXPECT_EQ(static_cast<char*>(header)[0], '@');
      seen.emplace_back(static_cast<char*>(metadata), length);
      ++count;
    }
    std::vector<std::string> seen;
    std::atomic<int> count{0};
  };
  test::ScriptedRtspServer server({.sdp = test::VideoSdp("H264")});
  Site site;
  site.AllocChannelData(1);
  ASSERT_TRUE(test::Plays(site, test::ConfigFor(server.Url(), cms::kRtspTransportInterleaved)));
  const Pictures pictures = Clip({.frames = 3, .gop = 1});
  const std::vector<std::uint8_t> own = {6, 5, 2, 'm', '1', 0x80};
  const std::vector<std::uint8_t> last = {6, 5, 2, 'm', '2', 0x80};
  std::vector<std::uint8_t> large(257, 7);
  std::fill_n(large.begin(), 3, std::uint8_t{6});
  large[1] = 5;
  test::RtpPacketizer rtp;
  for (const auto& picture : pictures) {
    std::vector<test::Bytes> units = test::SplitAnnexB(picture);
    units.insert(units.begin(), {own, last, large});
    std::vector<std::string> texts;
    for (const auto& packet : rtp.H264Units(units)) {
      texts.emplace_back(packet.begin(), packet.end());
    }
    server.SendRtp(0, texts);
  }
  ASSERT_TRUE(WaitFor([&] { return site.count == 3; }));
  EXPECT_EQ(site.seen, std::vector<std::string>(3, std::string(last.begin(), last.end())));
}

TEST(TodaysCameras, PacketsWithoutAPictureAreAFaultThatGoesWhenPicturesCome) {
  PlayingClient site(test::VideoSdp("H264"), cms::kRtspTransportInterleaved);
  site.client.SetReconnectPolicy({.deadStreamMs = 1'000, .noFramesMs = 300, .framelessMs = 60'000});
  const Pictures pictures = Clip({.frames = 2, .gop = 2});
  test::RtpPacketizer rtp;
  ASSERT_TRUE(WaitFor([&] {
    site.Send(rtp.H264(pictures[1]));  // which needs the one before it
    return site.client.Fault() == cms::ConnectionFault::kNoFrames;
  }));
  EXPECT_EQ(site.client.GetConnectionStatus().state, cms::ConnectionState::kPlaying);
  EXPECT_NE(site.client.GetConnectionStatus().detail.find("key-frame interval"), std::string::npos);
  EXPECT_TRUE(WaitFor([&] {
    site.Send(rtp.H264(pictures[0]));
    return site.client.Fault() == cms::ConnectionFault::kNone;
  }));
  site.client.SetReconnectPolicy({.deadStreamMs = 1'000,
                                  .noFramesMs = 300,
                                  .framelessMs = 600,
                                  .firstPauseMs = 10,
                                  .longestPauseMs = 10});
  EXPECT_TRUE(WaitFor([&] {
    rtp.Skip(1);
    site.Send(rtp.H264(pictures[1]));
    return site.client.GetConnectionStatus().reconnects == 1;
  })) << "a new session may begin with a key picture";
}

TEST(TodaysCameras, KeptOpenTheFirstPictureIsTheCamerasFirst) {
  const Pictures pictures = Clip({.frames = 2, .gop = 2});
  test::RtpPacketizer rtp;
  for (const int transport : {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved}) {
    test::ScriptedRtspServer server({.sdp = test::VideoSdp("H264")});
    server.On("PLAY", [&](const test::RtspRequest& request) {
      return test::RtspAnswer(server.GoodAnswer(request)).Do([&] {
        for (const auto& packet : PacketsOf(rtp, pictures)) {
          server.SendRtp(0, std::string(packet.begin(), packet.end()));
        }
      });
    });
    test::RtspTestClient client;
    cms::stRTSPClientConfig config = test::ConfigFor(server.Url(), transport);
    client.SetConfig(&config);
    client.KeepOpen();
    EXPECT_TRUE(WaitFor([&] { return client.Video().size() == 2; })) << transport;
  }
}

// A key picture of 3 MB, as a 4K camera's in front of a busy scene.
TEST(TodaysCameras, AKeyPictureOfMegabytesIsRecordedAndReadBackExactly) {
  const test::RecordingFolder folder;
  Pictures pictures = Clip({.width = 1280, .height = 720, .frames = 3, .gop = 1});
  for (auto& picture : pictures) {
    picture.resize(3'000'000, 0x5A);  // its last slice is as long as that
  }
  for (const int transport : {cms::kRtspTransportUdp, cms::kRtspTransportInterleaved}) {
    PlayingClient site(test::VideoSdp("H264"), transport);
    site.client.SetRecordParam(test::ParamFor(transport));
    site.client.TurnOnRecordingState(0, cms::kRecordSchedule);
    ASSERT_TRUE(WaitFor([&] { return site.client.IsRecording() != 0; }));
    test::RtpPacketizer rtp;
    for (const auto& picture : pictures) {
      const auto packets = rtp.H264(picture);
      const std::uint64_t before = site.Totals().videoFrames;
      for (std::size_t at = 0; at < packets.size(); at += 20) {
        site.Send(
            {packets.begin() + static_cast<std::ptrdiff_t>(at),
             packets.begin() + static_cast<std::ptrdiff_t>(std::min(at + 20, packets.size()))});
        if (transport == cms::kRtspTransportUdp) {
          std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
      }
      ASSERT_TRUE(WaitFor([&] { return site.Totals().videoFrames > before; }));
    }
    site.client.StopRecordAll();
    ASSERT_EQ(site.client.WaitRecorded(10'000), 1);
    EXPECT_EQ(site.client.GetRecordingStatus().lostBytes, 0u);
  }
  const auto files = folder.Files();
  ASSERT_EQ(files.size(), 2u);
  for (const auto& file : files) {
    ASSERT_EQ(file.frames.size(), 3u);
    for (std::size_t i = 0; i < 3; ++i) {
      EXPECT_TRUE(std::equal(
          pictures[i].begin(), pictures[i].end(), file.frames[i].payload.begin(),
          file.frames[i].payload.end(),
          [](std::uint8_t sent, char read) { return sent == static_cast<std::uint8_t>(read); }))
          << file.name << i;
      EXPECT_EQ(file.frames[i].type, 1u);
    }
  }
}

// A JPEG whose tables change under Q 255, and one larger than the payload header can tell.
TEST(TodaysCameras, JpegsComeWithTheTablesAndSizesThatTheyWereSentWith) {
  Pictures pictures;
  for (const int quality : {400'000, 4'000'000, 800'000}) {
    const auto clip = test::EncodeClip(
        {.codec = test::ClipCodec::kMjpeg, .frames = 2, .bitrate = quality, .noise = true});
    for (const auto& frame : clip) {
      pictures.push_back(frame.data);
    }
  }
  PlayingClient site(test::VideoSdp("JPEG"), cms::kRtspTransportInterleaved);
  ASSERT_TRUE(site.SendInStep(test::MuxRtp(AV_CODEC_ID_MJPEG, pictures)));
  const auto frames = site.client.Video();
  ASSERT_EQ(frames.size(), pictures.size());
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(test::DecodePicture(AV_CODEC_ID_MJPEG,
                                  {frames[i].payload.begin(), frames[i].payload.end()}),
              test::DecodePicture(AV_CODEC_ID_MJPEG, pictures[i]))
        << i;
    EXPECT_EQ(frames[i].type, 1);
  }

  const auto large = test::EncodeClip(
      {.codec = test::ClipCodec::kMjpeg, .width = 2592, .height = 64, .frames = 1});
  for (const char* const line : {"a=framesize:96 2592-64\r\n", "a=x-dimensions: 2592, 64\r\n"}) {
    PlayingClient wide(test::VideoSdp("JPEG", line), cms::kRtspTransportInterleaved);
    test::RtpPacketizer rtp;
    ASSERT_TRUE(wide.SendInStep(rtp.Jpeg(large[0].data)));
    const auto frame = wide.client.Video().at(0).payload;
    EXPECT_EQ(test::DecodePicture(AV_CODEC_ID_MJPEG, {frame.begin(), frame.end()}),
              test::DecodePicture(AV_CODEC_ID_MJPEG, large[0].data));
    unsigned width = 0;
    unsigned height = 0;
    wide.client.GetWidthAndHeight(0, &width, &height);
    EXPECT_EQ(width, 2592u);
    EXPECT_EQ(height, 64u);
  }
}

TEST(TodaysCameras, SetsOfTheDescriptionAreEnoughForH265) {
  const Pictures pictures = Clip({.codec = test::ClipCodec::kH265, .frames = 4, .gop = 4});
  const auto units = test::SplitAnnexB(pictures[0]);
  ASSERT_GE(units.size(), 4u);
  const char* const names[] = {"sprop-vps", "sprop-sps", "sprop-pps"};
  std::string line = "a=fmtp:96 ";
  std::vector<test::Bytes> bare = units;
  for (const char* const name : names) {
    std::string text;
    const test::Bytes set = bare.front();
    text.resize((set.size() + 2) / 3 * 4 + 1);
    text.resize(static_cast<std::size_t>(EVP_EncodeBlock(
        reinterpret_cast<unsigned char*>(text.data()), set.data(), static_cast<int>(set.size()))));
    line += std::string(name) + "=" + text + "; ";
    bare.erase(bare.begin());
  }
  for (const bool orderNumbers : {false, true}) {
    PlayingClient site(
        test::VideoSdp("H265", line + (orderNumbers ? "sprop-max-don-diff=1" : "") + "\r\n"),
        cms::kRtspTransportUdp);
    test::RtpPacketizer rtp;
    ASSERT_TRUE(site.SendInStep(rtp.H265Units(bare, false, orderNumbers)));
    for (std::size_t i = 1; i < pictures.size(); ++i) {
      ASSERT_TRUE(site.SendInStep(rtp.H265(pictures[i], false, orderNumbers)));
    }
    site.ExpectPictures(pictures);
    EXPECT_EQ(site.client.Video().at(0).type, 1);
    EXPECT_EQ(site.client.Video().at(1).type, 2);
    EXPECT_EQ(site.client.GetVideoEncoding(), "H265");
    unsigned width = 0;
    unsigned height = 0;
    site.client.GetWidthAndHeight(0, &width, &height);
    EXPECT_EQ(width, 320u);
    EXPECT_EQ(height, 240u);
  }
}

}  // namespace
