#include "cms/audio/internal/playout_buffer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <numeric>
#include <random>
#include <vector>

namespace {

constexpr std::uint32_t kRate = 8000;
constexpr cms::PcmFormat kMono{kRate, 1};
constexpr std::uint32_t kDelayMs = 100;
constexpr std::size_t kDelayFrames = kRate * kDelayMs / 1000;

std::vector<std::int16_t> Ramp(std::size_t from, std::size_t count) {
  std::vector<std::int16_t> samples(count);
  std::iota(samples.begin(), samples.end(), static_cast<std::int16_t>(from));
  return samples;
}

TEST(PlayoutBuffer, GivesWhatWasPutInOrderAndInItsFormat) {
  cms::PlayoutBuffer buffer(1000 * 2, kDelayMs);
  constexpr cms::PcmFormat kStereo{16000, 2};
  std::vector<std::int16_t> out(64);
  std::size_t given = 0;
  // Round and round the ring, in pieces that fit neither each other nor the ring.
  for (int round = 0; round < 50; ++round) {
    buffer.Put(kMono, Ramp(static_cast<std::size_t>(round) * 100, 100));
    std::size_t taken = 0;
    while ((taken = buffer.Take(std::span(out).first(33), 0)) != 0) {
      for (std::size_t i = 0; i < taken; ++i) {
        ASSERT_EQ(out[i], static_cast<std::int16_t>(given + i));
      }
      given += taken;
    }
  }
  EXPECT_EQ(given, 5000u);

  buffer.Put(kMono, Ramp(1, 3));
  buffer.Put(kStereo, Ramp(10, 5));  // the half frame at its end is not a frame
  EXPECT_EQ(buffer.NextFormat(), kMono);
  EXPECT_EQ(buffer.Take(out, 0), 3u);
  EXPECT_EQ(out[2], 3);
  EXPECT_EQ(buffer.NextFormat(), kStereo);
  EXPECT_EQ(buffer.Take(out, 0), 2u);
  EXPECT_EQ(out[3], 13);
  EXPECT_EQ(buffer.NextFormat().sampleRate, 0u);
  EXPECT_EQ(buffer.Take(out, 0), 0u);
}

TEST(PlayoutBuffer, KeepsBackUntilTheDelayIsThereAndAfterRunningDryAgain) {
  cms::PlayoutBuffer buffer(1 << 16, kDelayMs);
  EXPECT_FALSE(buffer.IsPrimed(true)) << "nothing is there";
  buffer.Put(kMono, Ramp(0, kDelayFrames - 1));
  EXPECT_FALSE(buffer.IsPrimed(false));
  buffer.Put(kMono, Ramp(0, 1));
  EXPECT_TRUE(buffer.IsPrimed(false));
  buffer.RanDry();
  std::vector<std::int16_t> out(10);
  buffer.Take(out, 0);
  EXPECT_FALSE(buffer.IsPrimed(false));
  EXPECT_TRUE(buffer.IsPrimed(true)) << "the last sound of all is not kept back for ever";
}

TEST(PlayoutBuffer, CutsABacklogAtItsOldEnd) {
  cms::PlayoutBuffer buffer(1 << 20, kDelayMs);
  std::size_t cut = 0;
  for (std::size_t second = 0; second < 3; ++second) {
    cut += buffer.Put(kMono, Ramp(second * kRate, kRate));
  }
  EXPECT_EQ(cut + buffer.QueuedFrames(), 3 * std::size_t{kRate});
  EXPECT_EQ(cut, buffer.CutFrames());
  EXPECT_LE(buffer.QueuedFrames(), std::size_t{kRate} * (kDelayMs + 300) / 1000);
  std::vector<std::int16_t> out(1);
  buffer.Take(out, 0);
  EXPECT_EQ(out[0], static_cast<std::int16_t>(cut)) << "the newest stays";

  cms::PlayoutBuffer tiny(100, kDelayMs);  // room for 50 samples
  EXPECT_EQ(tiny.Put(kMono, Ramp(0, 80)), 30u);
  EXPECT_EQ(tiny.Put({kRate, 2}, Ramp(0, 20)), 20u);
  EXPECT_EQ(tiny.QueuedFrames(), 30u);
}

// A card that plays steadily and a camera whose clock differs, over a simulated hour, blocks late
// by up to 30 ms: what is heard stays as far behind what was said as it was, nothing is cut, and
// the tone stays a tone.
struct Clocks {
  double ppm;
  std::uint32_t rate;
};

class Drift : public testing::TestWithParam<Clocks> {};

TEST_P(Drift, IsMadeUpFor) {
  const auto [ppm, rate] = GetParam();
  const cms::PcmFormat format{rate, 1};
  const std::size_t delayFrames = rate * kDelayMs / 1000;
  cms::PlayoutBuffer buffer(1 << 20, kDelayMs);
  std::minstd_rand random(1);
  const bool listens = rate == kRate;  // a tone at every rate would take the test a minute
  const double step = 0.05;
  const std::size_t blockFrames = rate / 50;
  const std::size_t chunkFrames = rate / 100;
  std::vector<std::int16_t> block(blockFrames);
  std::vector<std::int16_t> out(chunkFrames);
  double device = 0;      // frames in the card
  std::uint64_t put = 0;  // blocks
  double leastBehind = 1e9;
  double mostBehind = 0;
  int dry = 0;
  double jump = 0;
  std::int16_t last = 0;
  constexpr std::uint64_t kHours = 1;
  double late = 0;
  for (std::uint64_t chunk = 0; chunk < kHours * 3600 * 100; ++chunk) {  // 10 ms of the card
    const double now = static_cast<double>(chunk * chunkFrames);
    while (static_cast<double>(put * blockFrames) / (1 + ppm / 1e6) + late <= now) {
      for (std::size_t i = 0; listens && i < block.size(); ++i) {
        const auto n = static_cast<double>(put * blockFrames + i);
        block[i] = static_cast<std::int16_t>(10000 * std::sin(n * step));
      }
      buffer.Put(format, block);
      ++put;
      late = static_cast<double>(random() % (rate * 30 / 1000));
    }
    device -= std::min(device, static_cast<double>(chunkFrames));
    if (!buffer.IsPrimed(false)) {
      continue;
    }
    while (device < static_cast<double>(delayFrames * 2 - chunkFrames)) {
      const std::size_t taken = buffer.Take(out, static_cast<std::size_t>(device));
      if (taken == 0) {
        break;
      }
      for (std::size_t i = 0; listens && i < taken; ++i) {
        jump = std::max<double>(jump, std::abs(out[i] - last));
        last = out[i];
      }
      device += static_cast<double>(taken);
    }
    if (device == 0) {
      ++dry;
      buffer.RanDry();
    } else if (chunk > 100 * 60) {
      // What is put into the card now is heard when the card has played what it has.
      const auto given = static_cast<double>(put * blockFrames - buffer.QueuedFrames());
      const double behind = (now + device - given / (1 + ppm / 1e6)) * 1000 / rate;
      leastBehind = std::min(leastBehind, behind);
      mostBehind = std::max(mostBehind, behind);
    }
  }
  EXPECT_LT(mostBehind - leastBehind, 40) << "ms, from " << leastBehind << " to " << mostBehind;
  EXPECT_EQ(buffer.CutFrames(), 0u);
  EXPECT_EQ(dry, 0);
  EXPECT_LT(jump, 10000 * step * 1.6) << "a sample fell out of the tone";
}

INSTANTIATE_TEST_SUITE_P(PartsPerMillion, Drift,
                         testing::Values(Clocks{-300, kRate}, Clocks{0, kRate}, Clocks{300, kRate},
                                         Clocks{300, 48'000}));

}  // namespace
