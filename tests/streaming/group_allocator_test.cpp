#include "cms/streaming/internal/group_allocator.h"

#include <gtest/gtest.h>

#include <memory>
#include <set>
#include <vector>

namespace {

constexpr int kAutomatic = -2;
constexpr int kWithAudio = 5;
constexpr int kVideoOnly = 3;

using Claims = std::vector<std::unique_ptr<cms::GroupClaim>>;

std::set<int> Keys(const Claims& claims) {
  std::set<int> keys;
  for (const auto& claim : claims) {
    keys.insert(claim->Key());
  }
  return keys;
}

TEST(GroupAllocator, GroupsAreFilledOneAfterTheOtherAndPlacesComeBack) {
  Claims claims;
  for (int i = 0; i < 24; ++i) {
    claims.push_back(std::make_unique<cms::GroupClaim>(kAutomatic, kAutomatic, kWithAudio));
  }
  EXPECT_EQ(Keys(claims).size(), 2u);
  const int first = claims.front()->Key();
  claims.front().reset();
  const cms::GroupClaim next(kAutomatic, kAutomatic, kWithAudio);
  EXPECT_EQ(next.Key(), first);
}

TEST(GroupAllocator, WhatAClaimGivesBackServesOthersAndIsNotGivenBackTwice) {
  // Twice: a place counted wrong at the end would change the second round.
  for (int round = 0; round < 2; ++round) {
    Claims claims;
    for (int i = 0; i < 39; ++i) {
      claims.push_back(std::make_unique<cms::GroupClaim>(kAutomatic, kAutomatic, kWithAudio));
      claims.back()->Shrink(kVideoOnly);
      claims.back()->Shrink(kVideoOnly);
      claims.back()->Shrink(kWithAudio);
    }
    EXPECT_EQ(Keys(claims).size(), 3u);  // 19, 19 and 1: the place of a whole claim is needed first
  }
}

TEST(GroupAllocator, AKeyThatTheCallerChoseIsNotCounted) {
  Claims claims;
  for (int i = 0; i < 30; ++i) {
    claims.push_back(std::make_unique<cms::GroupClaim>(7, kAutomatic, kWithAudio));
    claims.back()->Shrink(kVideoOnly);
  }
  EXPECT_EQ(Keys(claims), std::set<int>{7});
  EXPECT_EQ(cms::GroupClaim(kAutomatic, kAutomatic, kWithAudio).Key(),
            cms::GroupAllocator::kFirstKey);
}

}  // namespace
