#include "cms/audio/ms_adpcm_decoder.h"

#include <algorithm>
#include <array>
#include <limits>

#include "cms/audio/internal/ima_adpcm.h"

namespace {

constexpr unsigned int kMsFactor = 4;
constexpr int kHeaderSize = 7;
constexpr int kMinimumDelta = 16;
constexpr int kMaximumDelta = std::numeric_limits<int>::max() / 768;

struct Coefficients {
  int first;
  int second;
};
constexpr std::array<Coefficients, 7> kCoefficients = {
    {{256, 0}, {512, -256}, {0, 0}, {192, 64}, {240, 0}, {460, -208}, {392, -232}}};

constexpr std::array<int, 16> kAdaptation = {230, 230, 230, 230, 307, 409, 512, 614,
                                             768, 614, 512, 409, 307, 230, 230, 230};

int ReadSigned16(const unsigned char* bytes) {
  return static_cast<std::int16_t>(bytes[0] | bytes[1] << 8);
}

class Predictor {
 public:
  explicit Predictor(const unsigned char* header)
      : coefficients_(kCoefficients[std::min<std::size_t>(header[0], kCoefficients.size() - 1)]),
        delta_(ReadSigned16(header + 1)),
        first_(ReadSigned16(header + 3)),
        second_(ReadSigned16(header + 5)) {}

  std::int16_t Next(unsigned nibble) {
    const int predicted = (first_ * coefficients_.first + second_ * coefficients_.second) / 256;
    const int factor = static_cast<int>(nibble) - ((nibble & 8) != 0 ? 16 : 0);
    second_ = first_;
    first_ = cms::Clamp16(predicted + delta_ * factor);
    delta_ = std::clamp(kAdaptation[nibble] * delta_ / 256, kMinimumDelta, kMaximumDelta);
    return static_cast<std::int16_t>(first_);
  }

  std::int16_t First() const { return static_cast<std::int16_t>(first_); }
  std::int16_t Second() const { return static_cast<std::int16_t>(second_); }

 private:
  const Coefficients coefficients_;
  int delta_;
  int first_;
  int second_;
};

}  // namespace

int MSADPCMDecoder::Initialize(const cms::CAudioDecoderConfig* config) {
  return InitializeOutput(config, kMsFactor, 0);
}

int MSADPCMDecoder::Decode(const unsigned char* block, int length, unsigned int /*channelMode*/) {
  outputLength_ = 0;
  if (block == nullptr || length < 1 ||
      !Fits(std::uint64_t{kMsFactor} * static_cast<unsigned>(length))) {
    return 0;
  }
  Predictor predictor(block);
  auto* out = reinterpret_cast<std::int16_t*>(output_.get());
  *out++ = predictor.First();
  *out++ = predictor.Second();
  const unsigned char* const end = block + kHeaderSize + length - 1;
  for (const unsigned char* each = block + kHeaderSize; each != end; ++each) {
    *out++ = predictor.Next(*each >> 4);
    *out++ = predictor.Next(*each & 0xFu);
  }
  outputLength_ = kMsFactor * static_cast<std::uint32_t>(length);
  return 1;
}
