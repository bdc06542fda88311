// Playing at the end of a site that goes on recording: into files and folders that come later.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "tests/playback/clip_recording.h"

namespace {

namespace fs = std::filesystem;
using test::ClipRecording;
using test::kStart;
using test::Player;

// A site whose one recording, of a day's folder, was played to its end.
class Follow : public testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(player_.Path("20231114"));
    Write("20231114/Rec_Site4_20231114221320.drv", 0);
    // For the file system it is long since anything was written.
    const std::string drv = player_.Path("20231114/Rec_Site4_20231114221320.drv");
    fs::last_write_time(drv, fs::last_write_time(drv) - std::chrono::hours(5));
    player_.AddSite({"20231114/Rec_Site4_20231114221320.drv"});
    player_.config.sites[0].followNewFiles = true;
    ASSERT_TRUE(player_.Start());
    player_.control.PlaybackResume();
    ASSERT_TRUE(test::WaitFor([&] {
      player_.clock.AdvanceMilliseconds(40);
      return player_.control.IsAllEndOfFile() == 1;
    }));
  }

  // A recording of 20 pictures, hours after the one before it.
  void Write(const std::string& name, int number) {
    ClipRecording recording;
    recording.first = 20 * number;
    recording.count = 20;
    recording.start = kStart + number * 7'200'000;
    recording.Make().Write(player_.Path(name));
  }

  bool Reaches(int number) {
    return test::WaitFor([&] {
      player_.clock.AdvanceMilliseconds(40);
      return player_.Number() == number;
    });
  }

  Player player_;
};

TEST_F(Follow, QuietHoursEndNothing) {
  player_.clock.Advance(3 * 3600);
  Write("20231114/Rec_Site4_20231115001320.drv", 1);
  EXPECT_TRUE(Reaches(39)) << player_.Number();
  Write("20231114/Rec_Site4_20231115021320.drv", 2);
  EXPECT_TRUE(Reaches(59)) << player_.Number();
  // It can be asked for, too.
  long size = 1 << 20;
  std::string frame(static_cast<std::size_t>(size), 0);
  EXPECT_EQ(
      player_.control.GetPlaybackFrameData(0, 0, player_.control.CurTimeGet(0, 0),
                                           reinterpret_cast<unsigned char*>(frame.data()), size),
      1);
}

TEST_F(Follow, TheNextDayHasAFolderOfItsOwn) {
  fs::create_directories(player_.Path("archive"));
  Write("archive/Rec_Site4_20231114231320.drv", 3);  // no day's
  fs::create_directories(player_.Path("20231115"));
  Write("20231115/Rec_Site5_20231115001320.drv", 3);  // another site's
  Write("20231115/Rec_Site4_20231115001320.drv", 1);
  EXPECT_TRUE(Reaches(39)) << player_.Number();
  fs::create_directories(player_.Path("20231201"));
  Write("20231201/Rec_Site4_20231201001320.drv", 2);
  EXPECT_TRUE(Reaches(59)) << player_.Number();
}

TEST_F(Follow, AnyNameMayLieInAFolder) {
  for (const char* name : {"caf\xe9.txt", "Rec_Site4_\xff.drv", "Rec_Site4_9\xc3.drv",
                           "\xf0\x9f.drv", "Rec_Site4_.drv", "\xed\xa0\x80", "20231199\xe9"}) {
    ClipRecording::Put(player_.Path(std::string("20231114/") + name), "@2");
    ClipRecording::Put(player_.Path(name), "@2");
  }
  Write("20231114/Rec_Site4_20231115001320.drv", 1);
  EXPECT_TRUE(Reaches(39)) << player_.Number();
}

}  // namespace
