// A site client that plays what a test's camera sends, over a real connection.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "cms/streaming/internal/rtp_packet.h"
#include "tests/support/rtp_packetizer.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

namespace test {

// One video stream of an encoding such as "H265", with more lines of its description.
inline std::string VideoSdp(const std::string& encoding, const std::string& lines = "") {
  return "v=0\r\nm=video 0 RTP/AVP 96\r\na=rtpmap:96 " + encoding + "/90000\r\n" + lines +
         "a=control:trackID=0\r\n";
}

class PlayingClient {
 public:
  using Adjust = std::function<void(cms::stRTSPClientConfig&)>;

  PlayingClient(const std::string& sdp, int transport, const Adjust& adjust = {}, bool plays = true)
      : server({.sdp = sdp}) {
    cms::stRTSPClientConfig config = ConfigFor(server.Url(), transport);
    if (adjust) {
      adjust(config);
    }
    EXPECT_EQ(client.SetConfig(&config), 1);
    EXPECT_EQ(client.OpenStream(), 1) << client.GetConnectionStatus().detail;
    if (plays) {
      EXPECT_EQ(client.Play(), 1);
    }
  }

  void Send(const RtpPackets& packets) {
    std::vector<std::string> texts;
    for (const RtpPacket& packet : packets) {
      texts.emplace_back(packet.begin(), packet.end());
    }
    server.SendRtp(0, texts);
  }

  // Picture after picture, none before the one in front of it was handed on: over UDP not faster
  // than any socket takes them. False when one did not come.
  bool SendInStep(const RtpPackets& packets) {
    for (std::size_t at = 0; at < packets.size();) {
      RtpPackets picture;
      const std::uint32_t time = cms::RtpPacket(packets[at]).Timestamp();
      for (; at < packets.size() && cms::RtpPacket(packets[at]).Timestamp() == time; ++at) {
        picture.push_back(packets[at]);
      }
      const std::uint64_t before = Totals().videoFrames;
      Send(picture);
      if (!WaitFor([&] { return Totals().videoFrames > before; })) {
        return false;
      }
    }
    return true;
  }

  cms::CMSFrameData Totals() const {
    cms::CMSFrameData totals;
    client.GetFrameData(&totals, sizeof totals);
    return totals;
  }

  void ExpectPictures(const std::vector<std::vector<std::uint8_t>>& pictures) {
    const auto frames = client.Video();
    ASSERT_EQ(frames.size(), pictures.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
      EXPECT_EQ(frames[i].payload, std::string(pictures[i].begin(), pictures[i].end())) << i;
    }
  }

  ScriptedRtspServer server;
  RtspTestClient client;
};

}  // namespace test
