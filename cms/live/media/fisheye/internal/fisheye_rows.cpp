#include "cms/live/media/fisheye/internal/fisheye_rows.h"

#include "cms/live/media/fisheye/internal/fisheye_table.h"

#ifdef __x86_64__
#include <immintrin.h>
#endif

namespace cms {
namespace {

constexpr int kWhole = FisheyeTable::kFractions;
constexpr int kBits = 14;  // of the product of two fractions
static_assert(kWhole * kWhole == 1 << kBits);
constexpr int kRounding = 1 << (kBits - 1);

struct Weights {
  int right;
  int bottom;
};

Weights WeightsOf(std::uint16_t fractions) {
  return {fractions & 0xFF, fractions >> 8};
}

// Of the byte `apart` bytes left of its neighbour.
std::uint8_t Between(const std::uint8_t* top, std::size_t stride, std::size_t apart,
                     const Weights& weights) {
  const std::uint8_t* const bottom = top + stride;
  const int left = top[0] * (kWhole - weights.bottom) + bottom[0] * weights.bottom;
  const int right = top[apart] * (kWhole - weights.bottom) + bottom[apart] * weights.bottom;
  return static_cast<std::uint8_t>(
      (left * (kWhole - weights.right) + right * weights.right + kRounding) >> kBits);
}

const std::uint8_t* At(const std::uint8_t* from, std::size_t stride, std::uint32_t place,
                       std::size_t bytes) {
  return from + (place >> 16) * stride + (place & 0xFFFF) * bytes;
}

void DewarpBytesPlainly(const FisheyeRow& row, std::size_t first, const std::uint8_t* from,
                        std::size_t stride, std::uint8_t outside, std::uint8_t* to) {
  for (std::size_t i = first; i < row.places.size(); ++i) {
    to[i] =
        row.fractions[i] == FisheyeTable::kOutside
            ? outside
            : Between(At(from, stride, row.places[i], 1), stride, 1, WeightsOf(row.fractions[i]));
  }
}

#ifdef __x86_64__

constexpr std::size_t kAtOnce = 8;
constexpr std::size_t kLargestStride = 0x7FFF;  // a signed factor of 16 bits

// The same arithmetic, eight at once. Returns how many are done.
__attribute__((target("avx2"))) std::size_t DewarpBytesAtOnce(const FisheyeRow& row,
                                                              const std::uint8_t* from,
                                                              std::size_t stride,
                                                              std::uint8_t outside,
                                                              std::uint8_t* to) {
  const auto* const top = reinterpret_cast<const int*>(from);
  const auto* const bottom = reinterpret_cast<const int*>(from + stride);
  const __m256i steps = _mm256_set1_epi32(static_cast<int>(stride << 16 | 1));
  // Two bytes of each 32 bits become 16 bits each; the fraction down goes to both of them.
  const __m256i twoBytes =
      _mm256_setr_epi8(0, -1, 1, -1, 4, -1, 5, -1, 8, -1, 9, -1, 12, -1, 13, -1, 0, -1, 1, -1, 4,
                       -1, 5, -1, 8, -1, 9, -1, 12, -1, 13, -1);
  const __m256i downTwice =
      _mm256_setr_epi8(1, -1, 1, -1, 5, -1, 5, -1, 9, -1, 9, -1, 13, -1, 13, -1, 1, -1, 1, -1, 5,
                       -1, 5, -1, 9, -1, 9, -1, 13, -1, 13, -1);
  const __m256i whole16 = _mm256_set1_epi16(kWhole);
  const __m256i whole32 = _mm256_set1_epi32(kWhole);
  const __m256i lowByte = _mm256_set1_epi32(0xFF);
  const __m256i nothing = _mm256_set1_epi32(FisheyeTable::kOutside);
  const __m256i fill = _mm256_set1_epi32(outside);
  const __m256i half = _mm256_set1_epi32(kRounding);
  std::size_t i = 0;
  for (; i + kAtOnce <= row.places.size(); i += kAtOnce) {
    const __m256i place = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(&row.places[i]));
    const __m256i offset = _mm256_madd_epi16(place, steps);
    const __m256i above = _mm256_shuffle_epi8(_mm256_i32gather_epi32(top, offset, 1), twoBytes);
    const __m256i below = _mm256_shuffle_epi8(_mm256_i32gather_epi32(bottom, offset, 1), twoBytes);
    const __m256i fractions =
        _mm256_cvtepu16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(&row.fractions[i])));
    const __m256i down = _mm256_shuffle_epi8(fractions, downTwice);
    const __m256i columns =
        _mm256_add_epi16(_mm256_mullo_epi16(above, _mm256_sub_epi16(whole16, down)),
                         _mm256_mullo_epi16(below, down));
    const __m256i right = _mm256_and_si256(fractions, lowByte);
    const __m256i weights =
        _mm256_or_si256(_mm256_slli_epi32(right, 16), _mm256_sub_epi32(whole32, right));
    const __m256i value =
        _mm256_srli_epi32(_mm256_add_epi32(_mm256_madd_epi16(columns, weights), half), kBits);
    const __m256i result = _mm256_blendv_epi8(value, fill, _mm256_cmpeq_epi32(fractions, nothing));
    const __m128i words =
        _mm_packus_epi32(_mm256_castsi256_si128(result), _mm256_extracti128_si256(result, 1));
    _mm_storel_epi64(reinterpret_cast<__m128i*>(to + i), _mm_packus_epi16(words, words));
  }
  return i;
}

bool HasAvx2() {
  static const bool has = __builtin_cpu_supports("avx2") != 0;
  return has;
}

#endif

}  // namespace

void DewarpBytes(const FisheyeRow& row, const std::uint8_t* from, std::size_t stride,
                 std::uint8_t outside, std::uint8_t* to) {
  std::size_t done = 0;
#ifdef __x86_64__
  if (stride <= kLargestStride && HasAvx2()) {
    done = DewarpBytesAtOnce(row, from, stride, outside, to);
  }
#endif
  DewarpBytesPlainly(row, done, from, stride, outside, to);
}

void DewarpPixels(const FisheyeRow& row, const std::uint8_t* from, std::size_t stride,
                  std::uint8_t* to) {
  constexpr std::size_t kBytes = 4;
  constexpr std::uint8_t kOpaqueBlack[kBytes] = {0, 0, 0, 0xFF};
  for (std::size_t i = 0; i < row.places.size(); ++i, to += kBytes) {
    const bool outside = row.fractions[i] == FisheyeTable::kOutside;
    const std::uint8_t* const pixel = outside ? from : At(from, stride, row.places[i], kBytes);
    const Weights weights = WeightsOf(row.fractions[i]);
    for (std::size_t colour = 0; colour < kBytes; ++colour) {
      to[colour] =
          outside ? kOpaqueBlack[colour] : Between(pixel + colour, stride, kBytes, weights);
    }
  }
}

}  // namespace cms
