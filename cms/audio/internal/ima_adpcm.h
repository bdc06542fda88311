// The IMA ADPCM step: 4 bits become a 16-bit sample.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>

#include "cms/audio/adpcm_state.h"

namespace cms {

constexpr int kMaximumStepIndex = 88;

constexpr std::array<std::int16_t, kMaximumStepIndex + 1> kImaSteps = {
    7,     8,     9,     10,    11,    12,    13,    14,    16,    17,    19,   21,    23,
    25,    28,    31,    34,    37,    41,    45,    50,    55,    60,    66,   73,    80,
    88,    97,    107,   118,   130,   143,   157,   173,   190,   209,   230,  253,   279,
    307,   337,   371,   408,   449,   494,   544,   598,   658,   724,   796,  876,   963,
    1060,  1166,  1282,  1411,  1552,  1707,  1878,  2066,  2272,  2499,  2749, 3024,  3327,
    3660,  4026,  4428,  4871,  5358,  5894,  6484,  7132,  7845,  8630,  9493, 10442, 11487,
    12635, 13899, 15289, 16818, 18500, 20350, 22385, 24623, 27086, 29794, 32767};

constexpr std::array<std::int8_t, 16> kImaIndexAdjustments = {-1, -1, -1, -1, 2, 4, 6, 8,
                                                              -1, -1, -1, -1, 2, 4, 6, 8};

constexpr int Clamp16(std::int64_t value) {
  return static_cast<int>(std::clamp<std::int64_t>(value, INT16_MIN, INT16_MAX));
}

constexpr int ClampStepIndex(int index) {
  return std::clamp(index, 0, kMaximumStepIndex);
}

// What each code adds to the predicted sample at each index, and the index that follows.
struct ImaStep {
  std::int32_t difference;
  std::int32_t next;
};
using ImaTable = std::array<std::array<ImaStep, 16>, kMaximumStepIndex + 1>;
extern const ImaTable kImaTable;

// The next sample of a state that is in its range, as it stays.
inline int NextImaSample(unsigned code, ADPCMState& state) {
  const ImaStep& step =
      kImaTable[static_cast<std::size_t>(state.stepIndex)][static_cast<std::size_t>(code & 0xF)];
  state.stepIndex = step.next;
  state.predictedSample += step.difference;
  // Sound seldom clips: a branch foretold costs less than two comparisons in the chain of samples.
  if (static_cast<std::int16_t>(state.predictedSample) != state.predictedSample) [[unlikely]] {
    state.predictedSample = Clamp16(state.predictedSample);
  }
  return state.predictedSample;
}

}  // namespace cms
