// Recordings on several disks of one recorder's file, as search, play and export find them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "cms/recording/gap_log.h"
#include "tests/support/faulty_file_io.h"
#include "tests/support/paths.h"
#include "tests/support/recorded_clip.h"
#include "tests/support/shell.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using test::RunOrvanta;
using test::ShellResult;
using testing::HasSubstr;

constexpr std::int64_t kPlacesStart = 1'700'000'000;  // 2023-11-14T22:13:20Z

// Site 7 went on on another disk after four seconds; site 3 was on that one alone.
class DataPlaces : public testing::Test {
 protected:
  DataPlaces() {
    test::RecordedClipSpec spec;
    spec.clip.frames = 100;
    test::DataFolderMaker first(folder_.File("disk1"));
    first.Add(7, test::RecordClip(spec));
    spec.start += 4;
    test::DataFolderMaker second(folder_.File("disk2"));
    second.Add(7, test::RecordClip(spec));
    second.Add(3, test::RecordClip(spec));
    cms::GapLogWriter gaps;
    gaps.SetDataRoot(folder_.File("disk2"));
    gaps.SetSite({7, L"Gate", L"10.0.0.7", 554});
    gaps.Begin(cms::GapCause::kWriteFailed, kPlacesStart + 3);
    gaps.End(kPlacesStart + 4);
    // Whoever looks for recordings need not be allowed to read the cameras' passwords.
    std::ofstream(Config()) << "[[disks]]\npath = \"disk1\"\n[[disks]]\npath = \"disk2\"\n"
                               "[[disks]]\npath = \"" +
                                   folder_.File("new") +
                                   "\"\n"
                                   "[[sites]]\nnumber = 7\nurl = \"rtsp://10.0.0.7/\"\nuser = "
                                   "\"a\"\npassword-file = \"/none\"\n";
    fs::create_directory(folder_.File("new"));
  }
  std::string Config() const { return folder_.File("recorder.toml"); }
  ShellResult Run(const std::string& command, const std::string& arguments) const {
    return RunOrvanta(command + " --config " + Config() + " " + arguments);
  }

  test::TemporaryFolder folder_;
};

TEST_F(DataPlaces, SearchPlayAndExportTakeAllDisksForOne) {
  for (const char* arguments :
       {"--json --month 2023-11", "--json --from 2023-11-14T22:13:00Z --to 2023-11-14T23:00:00Z"}) {
    const ShellResult result = Run("search", arguments);
    ASSERT_EQ(result.status, 0) << result.errors;
    const json found = json::parse(result.output, nullptr, false);
    ASSERT_EQ(found["spans"].size(), 3u) << result.output;
    EXPECT_EQ(found["spans"][0]["site"], 3);
    EXPECT_THAT(found["spans"][1]["files"][0].get<std::string>(), HasSubstr("/disk1/recordings/"));
    EXPECT_THAT(found["spans"][2]["files"][0].get<std::string>(), HasSubstr("/disk2/recordings/"));
    EXPECT_EQ(found["spans"][2]["start"], "2023-11-14T22:13:24Z");
    ASSERT_EQ(found["gaps"].size(), 1u);
    EXPECT_EQ(found["gaps"][0]["site"], 7);
  }

  const ShellResult played = Run("play", "--json --site 7 --speed 6");
  ASSERT_EQ(played.status, 0) << played.errors;
  const json site = json::parse(played.output, nullptr, false)["sites"][0];
  EXPECT_THAT(site["first"].get<std::string>(), HasSubstr("22:13:20")) << played.output;
  EXPECT_THAT(site["last"].get<std::string>(), HasSubstr("22:13:27")) << played.output;
  EXPECT_EQ(site["end_of_file"], true);

  const std::string clip = folder_.File("clip.mp4");
  const ShellResult exported = Run(
      "export", "--json --site 7 --from 2023-11-14T22:13:20Z --to 2023-11-14T22:14:00Z " + clip);
  ASSERT_EQ(exported.status, 0) << exported.errors;
  EXPECT_EQ(json::parse(exported.output, nullptr, false)["frames"], 200);
}

TEST_F(DataPlaces, ADiskThatIsAwayIsToldAndTheOthersAreSearched) {
  fs::rename(folder_.File("disk1"), folder_.File("elsewhere"));
  const ShellResult result = Run("search", "--json --month 2023-11");
  EXPECT_EQ(result.status, 1);
  EXPECT_THAT(result.errors, HasSubstr(folder_.File("disk1") + " is not there"));
  EXPECT_EQ(json::parse(result.output, nullptr, false)["spans"].size(), 2u);

  fs::rename(folder_.File("disk2"), folder_.File("elsewhere2"));
  const ShellResult none = Run("play", "");
  EXPECT_EQ(none.status, 1);
  EXPECT_THAT(none.errors, HasSubstr("nothing was recorded onto its disks"));
  EXPECT_EQ(Run("search", "--month 2023-11 --data .").status, 2);
  std::ofstream(Config()) << "[[disks]\n";
  EXPECT_THAT(Run("search", "--month 2023-11").errors, HasSubstr("recorder.toml:1:"));
}

}  // namespace
