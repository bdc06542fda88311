// What becomes of a recording when a camera never sends a key picture, or has no video at all.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/recording/data_root.h"
#include "cms/recording/gap_log.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

namespace {

class OddStream : public testing::Test {
 protected:
  void Record(const std::string& url) {
    std::filesystem::create_directories(data_.File("recordings/day"));
    cms::stRTSPClientConfig config = test::ConfigFor(url, cms::kRtspTransportInterleaved);
    client_.SetDataRoot(data_.Path());
    client_.SetConfig(&config);
    stRecordParam param;
    param.SetPath("day/Rec_Site7_");
    client_.SetRecordParam(param);
    client_.SetRecordDevice("127.0.0.1", "Yard", 554);
    client_.TurnOnRecordingState(0, cms::kRecordSchedule);
    EXPECT_EQ(client_.KeepOpen(), 1);
    ASSERT_TRUE(test::WaitFor([&] { return client_.IsClientPlaying() != 0; }))
        << client_.GetConnectionStatus().detail;
  }
  void Stop() {
    client_.StopRecordAll();
    client_.CloseStream();
    EXPECT_EQ(client_.WaitRecorded(30'000), 1);
  }
  std::vector<stPBTimeInfo> Found() const {
    LocalPBSearchEngine engine;
    engine.SetDataRoot(data_.Path());
    engine.searchByInterval(0, LocalPBSearchEngine::kFullRangeEnd);
    return engine.getNormalPBInfo();
  }

  const test::TemporaryFolder data_;
  test::RtspTestClient client_;
};

// At once, for no video is waited for, and without a gap.
TEST_F(OddStream, SoundAloneIsReceivedAndRecorded) {
  test::ScriptedCamera camera;
  camera.sdp =
      "v=0\r\no=- 1 1 IN IP4 127.0.0.1\r\ns=sound\r\nt=0 0\r\n"
      "m=audio 0 RTP/AVP 0\r\na=rtpmap:0 PCMU/8000\r\na=control:trackID=1\r\n";
  test::ScriptedRtspServer server(camera);
  const auto begin = std::chrono::steady_clock::now();
  Record(server.Url());
  std::uint16_t sequence = 0;
  const auto send = [&] {
    test::RtpFields fields;
    fields.payloadType = 0;
    fields.sequence = sequence++;
    server.SendRtp(1, test::RtpText(fields, std::string(160, 's')));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  };
  EXPECT_TRUE(test::WaitFor([&] {
    send();
    return client_.GetRecordingStatus().frames >= 100;
  }));
  const auto until = begin + std::chrono::seconds(6);  // what plays is a gap after three seconds
  while (std::chrono::steady_clock::now() < until) {
    send();
  }
  EXPECT_FALSE(client_.GetRecordingGap().has_value());
  EXPECT_TRUE(cms::ReadGapLog(0, data_.Path()).rows.empty());
  ASSERT_TRUE(test::WaitFor([&] { return client_.Audio().size() == sequence; }));
  Stop();
  const auto found = Found();
  ASSERT_EQ(found.size(), 1u);
  const auto frames =
      test::ReadDrv(cms::PathInData(found[0].records.at(0).GetFilenameW(), data_.Path()));
  EXPECT_EQ(frames.size(), client_.GetRecordingStatus().frames);
}

TEST_F(OddStream, WithoutAKeyPictureWhatComesAfterTenSecondsIsRecorded) {
  test::ScriptedRtspServer server;
  Record(server.Url());
  test::H264Packets packets;
  EXPECT_TRUE(test::WaitFor([&] {
    server.SendRtp(0, packets.Picture());
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    return client_.GetRecordingStatus().videoFrames >= 50;
  }));
  Stop();
  const auto found = Found();
  ASSERT_EQ(found.size(), 1u);
  EXPECT_GE(found[0].end - found[0].start, 1);
}

}  // namespace
