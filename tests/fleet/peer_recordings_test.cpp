// Another recorder's answer, by its own and by others that are none.
#include "fleet/peer_recordings.h"

#include <gtest/gtest.h>

namespace cms::fleet {
namespace {

TEST(PeerRecordings, AStretchOfTwoClaimsIsTwoPieces) {
  const auto pieces = ReadPeerRecordings(
      R"({"files":[{"name":"a","spans":[[1000,5999],[7000,7999]]}],"tokens":[[3000,8],[6000,9]]})",
      "rec1");
  ASSERT_TRUE(pieces);
  EXPECT_EQ(*pieces, (std::vector<HeldPiece>{{"rec1", "a", 1'000, 3'000, 0},
                                             {"rec1", "a", 3'000, 6'000, 8},
                                             {"rec1", "a", 7'000, 8'000, 9}}));
  // The clock was set back between the claims.
  const auto back = ReadPeerRecordings(
      R"({"files":[{"name":"a","spans":[[1000,9999]]}],"tokens":[[6000,8],[4000,9]]})", "rec1");
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, (std::vector<HeldPiece>{{"rec1", "a", 1'000, 4'000, 0},
                                           {"rec1", "a", 4'000, 10'000, 9}}));
}

TEST(PeerRecordings, WhatIsNoAnswerIsNone) {
  for (const char* text :
       {"", "[]", "{}", R"({"files":[],"tokens":7})", R"({"files":[{}],"tokens":[]})",
        R"({"files":[{"name":"a","spans":[[0,9223372036854775807]]}],"tokens":[]})",
        R"({"files":[{"name":"a","spans":[[-9223372036854775808,5]]}],"tokens":[]})",
        R"({"files":[{"name":"a","spans":[["0",5]]}],"tokens":[]})",
        R"({"files":[{"name":"a","spans":[[0,1e300]]}],"tokens":[]})",
        R"({"files":[],"tokens":[[0,-1.5]]})"}) {
    EXPECT_FALSE(ReadPeerRecordings(text, "rec1")) << text;
  }
}

}  // namespace
}  // namespace cms::fleet
