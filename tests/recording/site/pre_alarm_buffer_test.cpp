#include "cms/recording/site/internal/pre_alarm_buffer.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <string>
#include <vector>

namespace {

using cms::FrameView;
using cms::PreAlarmBuffer;

std::span<const std::uint8_t> BytesOf(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

FrameView FrameAt(std::uint64_t tick, const std::string& header, const std::string& payload,
                  bool key, bool audio = false) {
  FrameView frame;
  frame.header = BytesOf(header);
  frame.payload = BytesOf(payload);
  frame.key = key;
  frame.audio = audio;
  frame.arrivalUs = tick * 1000;
  return frame;
}

struct Kept {
  std::string header;
  std::string payload;
  bool key = false;
  std::uint64_t tick = 0;
};

std::vector<Kept> FramesOf(const PreAlarmBuffer& buffer) {
  std::vector<Kept> frames;
  buffer.ForEach([&](const FrameView& frame) {
    frames.push_back({{frame.header.begin(), frame.header.end()},
                      {frame.payload.begin(), frame.payload.end()},
                      frame.key,
                      frame.arrivalUs / 1000});
  });
  return frames;
}

// Random streams against what the rules say, kept in a plain list: whole groups of pictures, the
// newest that reach back far enough, never more than fit.
TEST(PreAlarmBuffer, KeepsTheNewestGroupsThatAreNeeded) {
  std::mt19937 random(7);
  const auto below = [&random](unsigned limit) { return static_cast<unsigned>(random() % limit); };
  for (int stream = 0; stream < 60; ++stream) {
    const std::size_t capacity = 2'000 + below(20'000);
    const std::uint64_t keepMs = 1'000 * (1 + below(10));
    PreAlarmBuffer buffer(static_cast<unsigned>(keepMs / 1000), capacity);
    std::deque<Kept> all;
    std::uint64_t tick = 1'000;
    std::size_t mostKept = 0;
    for (unsigned i = 0; i < 1'000; ++i) {
      tick += below(200);
      const std::string payload(below(i % 100 == 99 ? 3'000 : 300),
                                static_cast<char>('a' + i % 26));
      const Kept frame{std::to_string(i), payload, below(12) == 0, tick};
      buffer.Add(FrameAt(tick, frame.header, frame.payload, frame.key, below(5) == 0));
      all.push_back(frame);
      if (below(10) != 0) {
        continue;
      }
      const auto kept = FramesOf(buffer);
      ASSERT_LE(kept.size(), all.size());
      ASSERT_EQ(buffer.IsEmpty(), kept.empty());
      std::size_t bytes = 0;
      for (std::size_t k = 0; k < kept.size(); ++k) {  // the newest, in order, unchanged
        const Kept& expected = all[all.size() - kept.size() + k];
        ASSERT_EQ(kept[k].header, expected.header);
        ASSERT_EQ(kept[k].payload, expected.payload);
        ASSERT_EQ(kept[k].tick, expected.tick);
        bytes += expected.header.size() + expected.payload.size();
        // Only the first key frame may be older than needed.
        ASSERT_FALSE(kept[k].key && k > 0 && kept.back().key && tick - kept[k].tick >= keepMs);
      }
      ASSERT_LE(bytes, capacity + 8);
      ASSERT_TRUE(kept.empty() || kept[0].key);
      mostKept = std::max(mostKept, bytes);
    }
    EXPECT_GT(mostKept, 200u);
  }
}

TEST(PreAlarmBuffer, DropsNothingThatFitsAndIsNeeded) {
  PreAlarmBuffer buffer(4, 100'000);
  const std::string header(116, 'h');
  const std::string payload(500, 'p');
  for (unsigned i = 0; i <= 100; ++i) {  // a key frame each second, ten frames a second
    buffer.Add(FrameAt(i * 100, header, payload, i % 10 == 0));
  }
  const auto kept = FramesOf(buffer);
  EXPECT_EQ(kept.front().tick, 6'000u);
  EXPECT_EQ(kept.size(), 41u);
  buffer.Clear();
  EXPECT_TRUE(FramesOf(buffer).empty());
  buffer.Add(FrameAt(20'000, header, payload, false));
  EXPECT_TRUE(buffer.IsEmpty());
}

}  // namespace
