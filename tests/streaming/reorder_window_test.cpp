#include "cms/streaming/internal/reorder_window.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "cms/runtime/clock.h"

namespace {

class SetClock : public cms::Clock {
 public:
  SetClock() { cms::ReplaceClock(this); }
  ~SetClock() override { cms::ReplaceClock(nullptr); }
  std::uint64_t TickMilliseconds() const override { return now; }
  std::int64_t WallSeconds() const override { return 0; }

  std::uint64_t now = 1000;
};

class ReorderWindowTest : public testing::Test {
 protected:
  using Numbers = std::vector<std::uint16_t>;

  // A packet whose payload tells its number once more.
  void Take(unsigned number, std::uint8_t source = 1) {
    const auto high = static_cast<std::uint8_t>(number >> 8);
    const auto low = static_cast<std::uint8_t>(number);
    const std::vector<std::uint8_t> packet = {0x80, 96, high, low, 0,      0,    0,
                                              0,    0,  0,    0,   source, high, low};
    for (auto next = window_.Put(packet); !next.empty(); next = window_.Next()) {
      See(next);
    }
  }
  void TakeAll(const Numbers& numbers) {
    for (const unsigned number : numbers) {
      Take(number);
    }
  }

  SetClock clock_;
  cms::ReorderWindow window_;
  Numbers seen_;

  void See(cms::Bytes packet) {
    ASSERT_EQ(packet.size(), 14u);
    EXPECT_EQ(packet[2], packet[12]);
    EXPECT_EQ(packet[3], packet[13]);
    seen_.push_back(static_cast<std::uint16_t>(packet[2] << 8 | packet[3]));
  }
};

TEST_F(ReorderWindowTest, PacketsComeInOrderHoweverTheyWereMixedWithinTheWindow) {
  Numbers numbers(400);
  std::iota(numbers.begin(), numbers.end(), std::uint16_t{65400});
  Numbers mixed = numbers;
  std::mt19937 random(1);
  for (std::size_t at = 1; at + 20 < mixed.size(); at += 20) {
    std::shuffle(mixed.begin() + static_cast<std::ptrdiff_t>(at),
                 mixed.begin() + static_cast<std::ptrdiff_t>(at) + 20, random);
  }
  for (const std::uint16_t number : mixed) {
    Take(number);
    Take(number);  // a repetition
  }
  EXPECT_EQ(seen_, numbers);
  EXPECT_GT(window_.ReorderedPackets(), 100u);
}

TEST_F(ReorderWindowTest, ALostPacketIsWaitedForUntilTheTimeOrTheRoomIsUp) {
  TakeAll({1, 3, 4});
  EXPECT_EQ(seen_, (Numbers{1}));
  clock_.now += cms::ReorderWindow::kMilliseconds - 1;
  Take(6);
  EXPECT_EQ(seen_, (Numbers{1}));
  clock_.now += 1;
  Take(7);
  EXPECT_EQ(seen_, (Numbers{1, 3, 4})) << "5 has its own time";
  TakeAll({2, 5});
  EXPECT_EQ(seen_, (Numbers{1, 3, 4, 5, 6, 7}));
  EXPECT_EQ(window_.LatePackets(), 1u);

  Numbers expected = seen_;
  for (std::uint16_t number = 9; number < 8 + cms::ReorderWindow::kPackets; ++number) {
    Take(number);
    expected.push_back(number);
  }
  EXPECT_EQ(seen_.size(), 6u);
  Take(8 + cms::ReorderWindow::kPackets);
  expected.push_back(8 + cms::ReorderWindow::kPackets);
  EXPECT_EQ(seen_, expected);
}

TEST_F(ReorderWindowTest, WhatWaitedTooLongComesWithoutAnotherPacket) {
  TakeAll({1, 3, 4, 6});
  clock_.now += cms::ReorderWindow::kMilliseconds;
  EXPECT_TRUE(window_.IsWaiting());
  for (auto next = window_.Next(); !next.empty(); next = window_.Next()) {
    See(next);
  }
  EXPECT_EQ(seen_, (Numbers{1, 3, 4, 6}));
  EXPECT_FALSE(window_.IsWaiting());
}

TEST_F(ReorderWindowTest, ASenderThatStartsAnewIsFollowedAtOnce) {
  TakeAll({10, 12, 13});
  Take(500, 2);
  Take(501, 2);
  EXPECT_EQ(seen_, (Numbers{10, 12, 13, 500, 501})) << "another source";
  for (const unsigned number : {40000u, 40001u, 900u, 901u}) {
    Take(number, 2);
  }
  EXPECT_EQ(seen_, (Numbers{10, 12, 13, 500, 501, 40000, 40001, 900, 901}));
  EXPECT_TRUE(window_.Put(std::vector<std::uint8_t>(11, 0x80)).empty());
}

}  // namespace
