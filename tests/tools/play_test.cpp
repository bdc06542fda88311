// `orvanta play` on recordings, and the whole way: camera, `orvanta record`, `orvanta play`.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/playback/clip_recording.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"

namespace {

using nlohmann::json;
using test::ClipRecording;
using test::kStart;
using test::RunOrvanta;
using testing::HasSubstr;

json Played(const std::string& arguments) {
  const test::ShellResult result = RunOrvanta("play --json " + arguments);
  EXPECT_EQ(result.status, 0) << result.errors;
  return json::parse(result.output, nullptr, false);
}

std::string SizeOf(const std::string& picture) {
  return test::RunShell("ffprobe -v error -show_entries stream=width,height -of csv=p=0 " + picture)
      .output;
}

TEST(PlayCommand, PlaysAFolderAndFiles) {
  test::TemporaryFolder folder;
  const std::string day = folder.File("data/recordings/20231114");
  std::filesystem::create_directories(day);
  ClipRecording one;
  one.count = 50;
  one.Make().Write(day + "/Rec_Site3_20231114221320.drv");
  ClipRecording two;
  two.start = kStart + 400;
  two.count = 50;
  two.Make().Write(day + "/Rec_Site12_20231114221320.drv");
  const std::string data = "--data " + folder.File("data");

  const json all = Played(data + " --contact-sheet " + folder.File("seen.png"));
  ASSERT_EQ(all["sites"].size(), 2u) << all;
  EXPECT_EQ(all["speed"], 1);
  EXPECT_EQ(all["sites"][0]["site"], 3);
  EXPECT_EQ(all["sites"][1]["site"], 12);
  EXPECT_EQ(all["sites"][0]["first"], "2023-11-14T22:13:20.000Z");
  EXPECT_EQ(all["sites"][1]["last"], "2023-11-14T22:13:22.360Z");
  for (const json& site : all["sites"]) {
    EXPECT_TRUE(site["end_of_file"]);
    EXPECT_EQ(site["lost"], 0);
    EXPECT_GE(site["shown"], 5);  // a busy machine leaves pictures out
  }
  EXPECT_THAT(SizeOf(folder.File("seen.png")), HasSubstr("652,"));

  const json back =
      Played(data + " --site 12 --step -4 --contact-sheet " + folder.File("back.png"));
  ASSERT_EQ(back["sites"].size(), 1u);
  EXPECT_EQ(back["sites"][0]["first"], "2023-11-14T22:13:22.360Z");
  EXPECT_EQ(back["sites"][0]["last"], "2023-11-14T22:13:22.200Z");
  EXPECT_EQ(back["speed"], 0);
  EXPECT_EQ(SizeOf(folder.File("back.png")), "328,984\n");

  const json file =
      Played(day + "/Rec_Site3_20231114221320.drv --from 2023-11-14T22:13:21Z --step 2");
  EXPECT_EQ(file["sites"][0]["site"], 3);
  EXPECT_EQ(file["sites"][0]["last"], "2023-11-14T22:13:21.080Z");

  const struct {
    std::string arguments;
    int status;
    std::string says;
  } cases[] = {
      {"", 2, "say --data DIR"},
      {data + " --speed 0", 2, "--speed"},
      {data + " --speed 2 --step 1", 2, "excludes"},
      {data + " --site 7", 1, "site 7: no recording"},
      {"--data " + folder.File("nowhere"), 1, "no such folder"},
      {folder.File("none.drv"), 1, "none.drv: No such file"},
      {data + " --contact-sheet /nowhere/x.png --step 1", 1, "/nowhere/x.png"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.arguments);
    const test::ShellResult result = RunOrvanta("play " + each.arguments);
    EXPECT_EQ(result.status, each.status);
    EXPECT_THAT(result.errors, HasSubstr(each.says));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
  }
}

TEST(PlayCommand, StopsCleanlyOnSigterm) {
  test::TemporaryFolder folder;
  ClipRecording recording;
  recording.count = 250;
  recording.Make().Write(folder.File("a.drv"));
  const test::ShellResult result =
      test::RunShell("timeout --preserve-status -s TERM 3 " + std::string(ORVANTA_BINARY) +
                     " play --json --slow " + folder.File("a.drv"));
  EXPECT_EQ(result.status, 0);
  EXPECT_GE(json::parse(result.output, nullptr, false)["sites"][0]["shown"], 5);
}

// What two cameras showed is there again, with their numbers in order, both ways.
TEST(PlayCommand, PlaysWhatWasRecordedFromCameras) {
  test::RtspCamera a({"--gop", "10", "--audio", "pcmu"});
  test::RtspCamera b({"--codec", "mjpeg", "--fps", "10"});
  test::TemporaryFolder folder;
  const std::string data = "--data " + folder.File("data");
  const test::ShellResult recorded =
      RunOrvanta("record " + data + " --seconds 6 --json " + a.Url() + " " + b.Url());
  ASSERT_EQ(recorded.status, 0) << recorded.errors;
  const json played = Played(data + " --contact-sheet " + folder.File("seen.png"));
  ASSERT_EQ(played["sites"].size(), 2u) << played;
  for (const json& site : played["sites"]) {
    EXPECT_GE(site["shown"], 20) << played;
    EXPECT_EQ(site["lost"], 0);
    EXPECT_TRUE(site["end_of_file"]);
  }

  test::Player player;
  for (const auto& file : std::filesystem::recursive_directory_iterator(folder.File("data"))) {
    if (file.path().extension() == ".drv") {
      _MULTI_PB_SITE_CONFIG site;
      site.files = {cms::SystemPath(file.path().string())};
      player.config.sites.push_back(site);
    }
  }
  ASSERT_EQ(player.config.sites.size(), 2u);
  ASSERT_TRUE(player.Start());
  const auto number = [&player](unsigned site) {
    tagSIZE size;
    const unsigned char* const pixels = player.control.LockDecodedImage(site, 0, &size);
    const int result =
        pixels == nullptr
            ? -2
            : test::ReadFrameNumber(pixels, static_cast<int>(size.cx), static_cast<int>(size.cy),
                                    static_cast<int>(size.cx) * 4, static_cast<int>(size.cx));
    player.control.UnlockDecodedImage(site, 0);
    return result;
  };
  for (unsigned site = 0; site < 2; ++site) {
    player.control.setCurrentSiteIdx(static_cast<int>(site));
    player.control.SetPlaybackTargetTime(player.control.GetPlaybackDataStartTime() + 2500);
    player.Settled();
    const int first = number(site);
    ASSERT_GE(first, 0);
    for (int step = 1; step <= 25; ++step) {
      player.control.PlaybackStepForward();
      player.Settled();
      ASSERT_EQ(number(site), (first + step) % 4096);
    }
    for (int step = 24; step >= 0; --step) {
      player.control.PlaybackStepBackward();
      player.Settled();
      ASSERT_EQ(number(site), (first + step) % 4096);
    }
  }
}

}  // namespace
