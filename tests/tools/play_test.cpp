// `orvanta play` on recordings; whole_way_test.cpp plays those of cameras.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "tests/playback/clip_recording.h"
#include "tests/support/paths.h"
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
      test::RunShell("timeout --preserve-status -s TERM 3 " + test::OrvantaBinary() +
                     " play --json --slow " + folder.File("a.drv"));
  EXPECT_EQ(result.status, 0);
  EXPECT_GE(json::parse(result.output, nullptr, false)["sites"][0]["shown"], 5);
}

}  // namespace
