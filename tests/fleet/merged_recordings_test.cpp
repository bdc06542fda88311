// Several recorders' recordings of one camera as one.
#include "fleet/merged_recordings.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "fleet/day_record.h"

namespace cms::fleet {
namespace {

TEST(MergedRecordings, LaterClaimHasTheWordAndWhatNobodyElseHasIsMissing) {
  // rec1 recorded on while rec2 had taken over already; rec2 had one minute before its claim.
  const std::vector<HeldPiece> pieces{{"rec1", "a", 1'000, 60'000, TokenOf(1, 10)},
                                      {"rec2", "b", 40'000, 50'000, 0},
                                      {"rec2", "b", 50'000, 90'000, TokenOf(1, 20)},
                                      {"rec3", "c", 85'000, 88'000, TokenOf(2, 3)}};
  const std::vector<HeldPiece> merged{{"rec1", "a", 5'000, 50'000, TokenOf(1, 10)},
                                      {"rec2", "b", 50'000, 85'000, TokenOf(1, 20)},
                                      {"rec3", "c", 85'000, 88'000, TokenOf(2, 3)},
                                      {"rec2", "b", 88'000, 90'000, TokenOf(1, 20)}};
  EXPECT_EQ(MergePieces(pieces, 5'000, 100'000), merged);
  const auto missing =
      MissingOf({{"rec9", 0, 100'000}, {"rec9", 100'000, 200'000}}, merged, 5'000, 150'000);
  ASSERT_EQ(missing.size(), 1u);
  EXPECT_EQ(missing[0].from, 90'000);
  EXPECT_EQ(missing[0].to, 150'000);
}

TEST(MergedRecordings, EveryMomentThatSomebodyHoldsIsThereOnce) {
  std::minstd_rand random{7};
  for (int round = 0; round < 200; ++round) {
    std::vector<HeldPiece> pieces;
    for (unsigned i = 0; i < 8; ++i) {
      const std::int64_t from = static_cast<std::int64_t>(random() % 100);
      pieces.push_back({"rec" + std::to_string(random() % 3), std::to_string(i), from,
                        from + 1 + static_cast<std::int64_t>(random() % 40), random() % 4});
    }
    const auto merged = MergePieces(pieces, 10, 120);
    for (std::int64_t time = 10; time < 120; ++time) {
      const auto at = [time](const HeldPiece& piece) {
        return piece.from <= time && piece.to > time;
      };
      const auto held = std::count_if(pieces.begin(), pieces.end(), at);
      const auto shown = std::find_if(merged.begin(), merged.end(), at);
      ASSERT_EQ(std::count_if(merged.begin(), merged.end(), at), held > 0 ? 1 : 0);
      for (const HeldPiece& piece : pieces) {
        ASSERT_TRUE(!at(piece) || shown->token >= piece.token);
      }
    }
  }
}

TEST(DayRecord, IsReadAsItWasWrittenAndNothingElseIs) {
  const DayRecord record{{7, {0x800001, TokenOf(3, 1'234'567)}}, {70'000, {1, 0}}};
  EXPECT_EQ(DecodeDay(EncodeDay(record)), record);
  EXPECT_FALSE(DecodeDay(EncodeDay(record).substr(1)));
  const auto parts = ReadDayKey(DayKey(20'779, "rec1"));
  ASSERT_TRUE(parts);
  EXPECT_EQ(parts->day, 20'779);
  EXPECT_EQ(parts->recorder, "rec1");
  EXPECT_FALSE(ReadDayKey(std::string(kDaysPrefix) + "20261301/rec1"));
  EXPECT_FALSE(ReadDayKey(std::string(kDaysPrefix) + "20261101/"));
}

}  // namespace
}  // namespace cms::fleet
