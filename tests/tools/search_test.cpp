// orvanta search on databases as recorders leave them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "cms/recording/event_db_info.h"
#include "cms/recording/gap_log.h"
#include "tests/recording/database_bytes.h"
#include "tests/support/paths.h"
#include "tests/support/recorded_clip.h"
#include "tests/support/shell.h"

namespace {

using nlohmann::json;
using test::RunOrvanta;
using test::ShellResult;
using testing::HasSubstr;

constexpr std::int64_t kSearchStart = 1'700'000'000;  // 2023-11-14T22:13:20Z

class Search : public testing::Test {
 protected:
  Search() {
    test::RecordedClipSpec spec;
    spec.clip.frames = 100;
    for (const std::uint32_t site : {7u, 3u}) {
      drv_ = data_.Add(site, test::RecordClip(spec));
    }
    FX_EventDBInfo event(0, 0, 7, 4, 3, 0, 554, L"Gate", L"10.0.0.7");
    event.SetRecordTime(kSearchStart + 1);
    event.SetRecordTime(kSearchStart + 2);
    std::ofstream(folder_.File("data/EventList0"), std::ios::binary)
        .write(reinterpret_cast<const char*>(&event), sizeof(event));
  }
  ShellResult Run(const std::string& arguments) const {
    return RunOrvanta("search --data " + folder_.File("data") + " " + arguments);
  }

  test::TemporaryFolder folder_;
  test::DataFolderMaker data_{folder_.File("data")};
  std::string drv_;
};

TEST_F(Search, TellsDaysSpansEventsAndGaps) {
  {
    const std::filesystem::path before = std::filesystem::current_path();
    std::filesystem::current_path(folder_.File("data/recordings"));
    cms::GapLogWriter gaps;
    gaps.SetSite({7, L"Gate", L"10.0.0.7", 554});
    gaps.Begin(cms::GapCause::kDiskFull, kSearchStart + 10);
    gaps.End(kSearchStart + 20);
    std::filesystem::current_path(before);
  }
  for (const char* arguments :
       {"--json --month 2023-11",
        "--json --from 2023-11-14T22:13:00Z --to 2023-11-15T00:00:00+01:00"}) {
    SCOPED_TRACE(arguments);
    const ShellResult result = Run(arguments);
    ASSERT_EQ(result.status, 0) << result.errors;
    const json found = json::parse(result.output, nullptr, false);
    const bool month = std::string(arguments).find("month") != std::string::npos;
    EXPECT_EQ(found["days"], month ? json({14}) : json::array());
    ASSERT_EQ(found["spans"].size(), 2u);
    EXPECT_EQ(found["spans"][0]["site"], 7);
    EXPECT_EQ(found["spans"][1], json({{"site", 3},
                                       {"start", "2023-11-14T22:13:20Z"},
                                       {"end", "2023-11-14T22:13:23Z"},
                                       {"files", {std::filesystem::canonical(drv_).string()}}}));
    ASSERT_EQ(found["events"].size(), 1u);
    EXPECT_EQ(found["events"][0], json({{"site", 7},
                                        {"kind", "alarm"},
                                        {"channel", 5},
                                        {"start", "2023-11-14T22:13:21Z"},
                                        {"end", "2023-11-14T22:13:22Z"}}));
    ASSERT_EQ(found["gaps"].size(), 1u);
    EXPECT_EQ(found["gaps"][0]["cause"], "disk full");
    EXPECT_EQ(found["gaps"][0]["end"], "2023-11-14T22:13:40Z");
  }
}

// A disk that is away for a while takes no events with it, unless that is asked for.
TEST_F(Search, OnlyPruningRemovesEvents) {
  const std::string list = folder_.File("data/EventList0");
  const std::string events = test::ReadWholeFile(list);
  const std::string folder = folder_.File("data/recordings");
  std::filesystem::rename(folder, folder_.File("away"));
  std::filesystem::create_directories(folder);
  const std::string all = "--from 1970-01-01T00:00:00Z --to 2106-02-07T06:28:15Z";
  EXPECT_EQ(Run(all).status, 0);
  EXPECT_EQ(test::ReadWholeFile(list), events);
  EXPECT_EQ(Run("--prune --month 2023-11").status, 2);
  EXPECT_EQ(Run("--prune " + all).status, 2);
  std::filesystem::remove(folder);
  std::filesystem::rename(folder_.File("away"), folder);
  const ShellResult found = Run("--json --prune");
  EXPECT_EQ(json::parse(found.output, nullptr, false)["events"].size(), 1u) << found.errors;
  EXPECT_EQ(test::ReadWholeFile(list), events);
  std::filesystem::remove_all(folder);
  std::filesystem::create_directories(folder);
  EXPECT_EQ(Run("--prune").status, 0);
  EXPECT_EQ(test::ReadWholeFile(list), "");
}

TEST_F(Search, DrawsAMonthAndSaysWhoseTimesTheyAre) {
  const ShellResult result = Run("--utc --month 2023-11");
  EXPECT_THAT(result.output, HasSubstr("2023-11, days in UTC"));
  EXPECT_THAT(result.output,
              HasSubstr("\n Mo  Tu  We  Th  Fr  Sa  Su\n          1   2   3   4   5 "));
  EXPECT_THAT(result.output, HasSubstr(" 13 [14] 15 "));
  EXPECT_THAT(result.output, HasSubstr("Times are in UTC."));
  const ShellResult local =
      test::RunShell("env TZ=Asia/Tokyo " + test::OrvantaBinary() + " search --data " +
                     folder_.File("data") + " --from 2023-11-15 --to 2023-11-15");
  EXPECT_THAT(local.output, HasSubstr("2023-11-15T07:13:20+09:00"));
}

TEST_F(Search, WrongUsageIsTold) {
  for (const char* arguments :
       {"", "--month 2023-13", "--month 2023-11 --from 2023-11-01", "--from 2023-11-01",
        "--from 2023-02-30 --to 2023-03-01", "--from 2023-11-02 --to 2023-11-01T12:00",
        "--from 2023-11-02T25:00 --to 2023-11-05", "--from 2023-11-02x --to 2023-11-05"}) {
    const ShellResult result = Run(arguments);
    EXPECT_EQ(result.status, 2) << arguments;
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
  }
  EXPECT_EQ(RunOrvanta("search --month 2023-11 --data " + folder_.File("none")).status, 1);
}

}  // namespace
