#include "cms/recording/internal/disk_buffers.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

namespace {

using cms::DiskBuffers;

TEST(DiskBuffers, ARecorderHasItsOwnAndAShareOfWhatTheProcessHasToSpare) {
  std::vector<DiskBuffers> recorders(4);
  std::vector<std::vector<std::uint8_t*>> taken(recorders.size());
  for (std::size_t i = 0; i < recorders.size(); ++i) {
    while (std::uint8_t* const buffer = recorders[i].Take()) {
      taken[i].push_back(buffer);
    }
    EXPECT_EQ(recorders[i].Free(), 0u);
  }
  constexpr std::size_t kLent = DiskBuffers::kMost - DiskBuffers::kOwn;
  EXPECT_EQ(taken[0].size(), DiskBuffers::kMost);
  EXPECT_EQ(taken[1].size(), DiskBuffers::kMost);
  EXPECT_EQ(taken[2].size(), DiskBuffers::kOwn + DiskBuffers::kSpare - 2 * kLent);
  EXPECT_EQ(taken[3].size(), DiskBuffers::kOwn);  // whatever the others do

  // What one gives back another may take.
  recorders[0].Give(taken[0].back());
  taken[0].pop_back();
  EXPECT_EQ(recorders[1].Free(), 0u);  // it has its share
  EXPECT_EQ(recorders[3].Free(), 1u);
  for (std::size_t i = 0; i < recorders.size(); ++i) {
    std::for_each(taken[i].begin(), taken[i].end(), [&](auto* each) { recorders[i].Give(each); });
    EXPECT_EQ(recorders[i].Free(), DiskBuffers::kMost);
  }
  // The one used last is still in the processor's cache.
  std::uint8_t* const last = recorders[0].Take();
  recorders[0].Give(last);
  EXPECT_EQ(recorders[0].Take(), last);
}

}  // namespace
