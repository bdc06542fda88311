// What becomes of a recording when a camera stays connected and sends no video, no sound, or
// neither.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cms/recording/gap_log.h"
#include "cms/runtime/clock.h"
#include "tests/recording/recorder_site.h"
#include "tests/support/rtsp_test_client.h"
#include "tests/support/scripted_rtsp_server.h"
#include "tests/support/wait.h"

namespace {

class MutedCamera {
 public:
  MutedCamera(int site, bool mutesVideo, bool mutesSound)
      : site_(site), mutesVideo_(mutesVideo), mutesSound_(mutesSound) {
    cms::stRTSPClientConfig config = test::ConfigFor(server_.Url(), cms::kRtspTransportInterleaved);
    client_.SetConfig(&config);
    cms::ReconnectPolicy policy;
    policy.deadStreamMs = 3'000;
    policy.firstPauseMs = 100;
    policy.longestPauseMs = 200;
    client_.SetReconnectPolicy(policy);
    client_.SetRecordParam(test::ParamFor(site));
    client_.SetRecordDevice(L"127.0.0.1", L"Yard", 554);
    EXPECT_EQ(client_.KeepOpen(), 1);
  }

  void StartRecording() { client_.TurnOnRecordingState(0, cms::kRecordSchedule); }
  std::size_t Received() const { return client_.Video().size(); }
  bool IsPlaying() const { return client_.IsClientPlaying() != 0; }
  void Send(bool muted) {
    if (!muted || !mutesVideo_) {
      server_.SendRtp(0, packets_.KeyFrame());
    }
    if (!muted || !mutesSound_) {
      test::RtpFields fields;
      fields.payloadType = 0;
      fields.sequence = sound_++;
      server_.SendRtp(1, test::RtpText(fields, std::string(160, 's')));
    }
  }
  std::uint64_t Recorded() const { return client_.GetRecordingStatus().videoFrames; }
  std::size_t Connections() const { return server_.Connections().size(); }
  std::vector<cms::GapRow> Gaps() const {
    auto rows = cms::ReadGapLog(0).rows;
    std::erase_if(rows, [&](const auto& row) {
      return int(row.siteNumber) != site_ || row.cause == cms::GapCause::kStopped;
    });
    return rows;
  }
  void StopRecording() { client_.StopRecordAll(); }
  void Close() {
    client_.CloseStream();
    EXPECT_EQ(client_.WaitRecorded(30'000), 1);
  }

 private:
  const int site_;
  const bool mutesVideo_;
  const bool mutesSound_;
  test::ScriptedRtspServer server_;
  test::RtspTestClient client_;
  test::H264Packets packets_;
  std::uint16_t sound_ = 0;
};

// The longest distance between two recorded pictures of a site, in their headers' seconds.
std::pair<std::uint32_t, std::uint32_t> LongestHole(const std::string& folder, int site) {
  std::pair<std::uint32_t, std::uint32_t> longest{0, 0};
  std::uint32_t last = 0;
  for (const auto& file : test::ReadRecordings(folder)) {
    if (file.name.find("Rec_Site" + std::to_string(site) + "_") == std::string::npos) {
      continue;
    }
    for (const auto& frame : file.frames) {
      if (!frame.audio) {
        if (last != 0 && frame.seconds - last > longest.second - longest.first) {
          longest = {last, frame.seconds};
        }
        last = frame.seconds;
      }
    }
  }
  return longest;
}

TEST(MutedCamera, NoVideoIsAGapFromItsLastToItsNextPictureAndOpenedAgain) {
  const test::WorkFolder folder;
  std::filesystem::create_directories(folder.Beside("rec"));
  MutedCamera video(1, true, false);
  MutedCamera sound(2, false, true);
  MutedCamera both(3, true, true);
  MutedCamera* const cameras[] = {&video, &sound, &both};
  const auto all = [&](auto what) {
    return std::all_of(std::begin(cameras), std::end(cameras), what);
  };
  ASSERT_TRUE(test::WaitFor([&] { return all([](auto* each) { return each->IsPlaying(); }); }));

  std::uint64_t lastSent = cms::TickMilliseconds();
  std::uint64_t longestPause = 0;
  const auto run = [&](bool muted, const std::function<bool()>& done) {
    return test::WaitFor([&] {
      const std::uint64_t now = cms::TickMilliseconds();
      longestPause = std::max(longestPause, now - std::exchange(lastSent, now));
      for (MutedCamera* const each : cameras) {
        each->Send(muted);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(40));
      return done();
    });
  };
  ASSERT_TRUE(run(false, [&] { return all([](auto* each) { return each->Received() > 10; }); }));
  std::for_each(std::begin(cameras), std::end(cameras), [](auto* each) { each->StartRecording(); });
  const auto recordsOn = [](auto* each) { return each->Recorded() > 30; };
  ASSERT_TRUE(run(false, [&] { return all(recordsOn); }));
  const std::uint64_t begin = cms::TickMilliseconds();
  ASSERT_TRUE(run(true, [&] {
    return cms::TickMilliseconds() - begin > 7'000 && video.Connections() >= 3 &&
           both.Connections() >= 3;
  }));
  const std::uint64_t videoBefore = video.Recorded();
  const std::uint64_t bothBefore = both.Recorded();
  ASSERT_TRUE(run(false, [&] {
    return video.Recorded() > videoBefore + 50 && both.Recorded() > bothBefore + 50;
  }));
  const auto ended = [](auto* each) { return each->Gaps().empty() || each->Gaps().back().to != 0; };
  ASSERT_TRUE(run(false, [&] { return all(ended); }));
  std::for_each(std::begin(cameras), std::end(cameras), [](auto* each) { each->StopRecording(); });
  std::for_each(std::begin(cameras), std::end(cameras), [](auto* each) { each->Close(); });
  if (longestPause > 2'000) {
    GTEST_SKIP() << "this machine stood still for " << longestPause
                 << " ms, and so did the cameras";
  }

  EXPECT_EQ(sound.Connections(), 1u) << "a stream without its sound lives";
  EXPECT_TRUE(sound.Gaps().empty());
  for (const auto& [camera, site] : {std::pair(&video, 1), std::pair(&both, 3)}) {
    const auto gaps = camera->Gaps();
    const auto hole = LongestHole(folder.Beside("rec"), site);
    EXPECT_GE(hole.second - hole.first, 6u);
    std::ostringstream list;
    for (const auto& gap : gaps) {
      list << " [" << gap.from << ", " << gap.to << "] cause " << static_cast<int>(gap.cause);
    }
    ASSERT_EQ(gaps.size(), 1u) << site << list.str() << ", longest pause " << longestPause << " ms";
    EXPECT_EQ(gaps[0].cause, cms::GapCause::kNoPictures);
    EXPECT_NEAR(double(gaps[0].from), hole.first, 1);
    EXPECT_NEAR(double(gaps[0].to), hole.second, 1);
  }
}

}  // namespace
