// Which spans without a recording become gaps, with which cause and from when to when.
#include "cms/recording/site/internal/site_gaps.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>
#include <vector>

#include "cms/live/internal/connection_sight.h"
#include "tests/recording/database_bytes.h"

using cms::GapCause;
using testing::ElementsAre;
using testing::FieldsAre;
using testing::IsEmpty;

namespace {

// A site of which time passes in tenths of a second, looked at once a second.
class Gaps : public testing::Test {
 protected:
  struct Row {
    GapCause cause;
    std::int64_t from;
    std::int64_t to;
  };

  // Frames come and are recorded every so many tenths of a second; 0: none.
  void Pass(int tenths, int distance, bool recorded = true) {
    for (int i = 0; i < tenths; ++i, ++passed_) {
      const cms::Moment now = Now();
      if (distance > 0 && ++sinceFrame_ >= distance) {
        sinceFrame_ = 0;
        sight_.connection.lastVideoTick = now.tick;
        if (recorded) {
          sight_.recording.AddVideo(now);
          sight_.recording.state = cms::RecordingState::kRecording;
        }
      }
      if (passed_ % 10 == 7) {
        sight_.now = now;
        gaps_.Look(sight_);
      }
    }
  }
  void Connection(cms::ConnectionState state,
                  cms::ConnectionFault fault = cms::ConnectionFault::kNone) {
    sight_.connection = cms::SightOf(state, fault, sight_.connection.lastVideoTick);
  }
  // The watchdog's doing, while the camera keeps silent.
  void Reopen() {
    Connection(cms::ConnectionState::kWaiting, cms::ConnectionFault::kStreamDied);
    Pass(7, 0);
    Connection(cms::ConnectionState::kOpening);
    Pass(3, 0);
    Connection(cms::ConnectionState::kPlaying);
  }
  cms::Moment Now() const {
    return {100'000 + passed_ * 100, 1'000 + set_ + std::int64_t(passed_) / 10};
  }
  static std::vector<Row> Rows() {
    std::vector<Row> rows;
    for (const cms::GapRow& row : cms::ReadGapLog(0).rows) {
      rows.push_back({row.cause, row.from - 1'000, row.to == 0 ? 0 : row.to - 1'000});
    }
    return rows;
  }

  Gaps() {
    sight_.armed = true;
    sight_.wanted = true;
    sight_.alwaysWanted = true;
    Connection(cms::ConnectionState::kPlaying);
  }

  test::WorkFolder folder_;
  cms::SiteGaps gaps_;
  cms::RecordingSight sight_;
  std::uint64_t passed_ = 0;
  std::int64_t set_ = 0;  // by so much the clock was
  int sinceFrame_ = 0;
};

TEST_F(Gaps, ASilentCameraIsOneGapHoweverOftenItIsOpenedAgain) {
  Pass(100, 1);
  for (int round = 0; round < 4; ++round) {
    Pass(100, 0);
    Reopen();
  }
  Pass(20, 0);
  Pass(60, 1);
  EXPECT_THAT(Rows(), ElementsAre(FieldsAre(GapCause::kNoPictures, 9, 56)));
}

TEST_F(Gaps, AHoleThatIsOverBeforeItIsSeenIsWrittenWithItsEnd) {
  Pass(100, 1);
  Pass(35, 0);  // 9.9 to 13.5: at no look three seconds
  Pass(50, 1);
  Pass(25, 0);  // too short
  Pass(50, 1);
  EXPECT_THAT(Rows(), ElementsAre(FieldsAre(GapCause::kNoPictures, 9, 13)));
}

TEST_F(Gaps, ASlowStreamIsNoGapAndItsOwnSilenceIs) {
  Pass(600, 25);  // a frame every two and a half seconds
  EXPECT_THAT(Rows(), IsEmpty());
  Pass(100, 0);
  Pass(60, 25);
  ASSERT_EQ(Rows().size(), 1u);
  EXPECT_EQ(Rows()[0].cause, GapCause::kNoPictures);
  EXPECT_GE(Rows()[0].to - Rows()[0].from, 10);
}

TEST_F(Gaps, TheCauseMayChangeAndThePartsDoNotOverlap) {
  Pass(100, 1);
  Connection(cms::ConnectionState::kWaiting, cms::ConnectionFault::kClosedByCamera);
  Pass(50, 0);
  Connection(cms::ConnectionState::kPlaying);
  sight_.recording.state = cms::RecordingState::kWaitingForKeyFrame;
  Pass(50, 1, false);  // frames, but no key frame among them
  Pass(100, 0);        // then not even these
  sight_.recording.state = cms::RecordingState::kFailed;
  sight_.recording.error = ENOSPC;
  Pass(50, 1, false);
  sight_.recording.error = 0;
  Pass(50, 1);
  const auto rows = Rows();
  ASSERT_EQ(rows.size(), 4u);
  const GapCause causes[] = {GapCause::kCameraGone, GapCause::kWaitingForKeyFrame,
                             GapCause::kNoPictures, GapCause::kDiskFull};
  EXPECT_EQ(rows[0].from, 9);
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_EQ(rows[i].cause, causes[i]);
    EXPECT_EQ(rows[i].to, i + 1 < rows.size() ? rows[i + 1].from : 35);
  }
}

TEST_F(Gaps, AClockThatIsSetMakesNoneLonger) {
  Pass(100, 1);
  Pass(100, 0);
  set_ = 100'000;  // while one lasts: it goes on by the new time
  Pass(50, 0);
  Pass(100, 1);
  set_ = 50'000;  // while all is well, and shortly before one begins
  Pass(10, 1);
  set_ = 90'000;
  Pass(100, 0);
  set_ = 70'000;
  Pass(50, 1);
  std::int64_t whole = 0;
  for (const Row& row : Rows()) {
    EXPECT_GE(row.to, row.from);
    whole += row.to - row.from;
  }
  EXPECT_EQ(Rows().size(), 4u);
  EXPECT_NEAR(static_cast<double>(whole), 25, 3);
}

TEST_F(Gaps, WhatIsNotWantedIsNone) {
  sight_.alwaysWanted = false;
  Pass(50, 1);
  sight_.wanted = false;  // between events
  Pass(100, 0);
  sight_.wanted = true;
  Pass(50, 1);
  EXPECT_THAT(Rows(), IsEmpty());
  Connection(cms::ConnectionState::kPaused);
  Pass(50, 0);
  sight_.wanted = false;
  Pass(50, 0);
  ASSERT_EQ(Rows().size(), 1u);
  EXPECT_EQ(Rows()[0].cause, GapCause::kStreamClosed);
  EXPECT_EQ(Rows()[0].from, 19);
  EXPECT_GE(Rows()[0].to, 25);
}

// The disk holds up the looking, not the receiving.
TEST_F(Gaps, HolesBetweenTwoLooksThatAreFarApartAreAllFound) {
  Pass(100, 1);
  sight_.now = Now();
  gaps_.Look(sight_);
  const auto moment = [&](std::uint64_t seconds) {
    return cms::Moment{Now().tick + seconds * 1'000, Now().wall + std::int64_t(seconds)};
  };
  for (const std::uint64_t second : {0u, 4u, 5u, 11u, 12u}) {
    sight_.recording.AddVideo(moment(second));
  }
  sight_.now = moment(12);
  gaps_.Look(sight_);
  EXPECT_THAT(Rows(), ElementsAre(FieldsAre(GapCause::kNoPictures, 10, 14),
                                  FieldsAre(GapCause::kNoPictures, 15, 21)));
}

}  // namespace
