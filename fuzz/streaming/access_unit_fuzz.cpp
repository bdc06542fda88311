// Any payloads as H.264 and H.265, with any markers, time stamps and gaps: nothing outside a
// payload is read; each unit begins with a start code, is no longer than allowed and leaves its
// room as promised; a key picture's parameter sets are there, and nothing is decodable before the
// first. The first byte chooses codec, order numbers and the limit; then a byte of flags in front
// of each block: marker, gap, a new time stamp, a parameter set of the description.
#include <algorithm>
#include <cstring>

#include "cms/streaming/internal/access_unit_assembler.h"
#include "fuzz/streaming/rtp_input.h"
#include "fuzz/support/check.h"

namespace {

class Sink final : public cms::AccessUnitSink {
 public:
  explicit Sink(std::size_t most) : most_(most) {}

  void OnAccessUnit(const cms::AccessUnit& unit) override {
    constexpr std::uint8_t kStart[] = {0, 0, 0, 1};
    CHECK(unit.data.size() > sizeof kStart &&
          std::equal(std::begin(kStart), std::end(kStart), unit.data.begin()));
    CHECK(unit.data.size() <= most_ + cms::ParameterSetStore::kMostBytes);
    const std::uint8_t* const end = unit.data.data() + unit.data.size();
    CHECK(std::all_of(end, end + cms::UnitBuffer::kTailRoom,
                      [](std::uint8_t byte) { return byte == 0; }));
    std::memset(unit.data.data() - cms::UnitBuffer::kFrontRoom, 0xEE, cms::UnitBuffer::kFrontRoom);
    keySeen_ = keySeen_ || unit.key;
    CHECK(!unit.decodable || keySeen_);
    CHECK(!unit.newSize || (unit.decodable && unit.newSize->width > 0));
  }

 private:
  const std::size_t most_;
  bool keySeen_ = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::uint8_t switches = fuzz::TakeByte(input);
  const cms::NalFormat format{(switches & 1) != 0 ? cms::NalCodec::kH265 : cms::NalCodec::kH264,
                              (switches & 3) == 3};
  const std::size_t most = (switches & 4) != 0 ? 300 : 100'000;
  Sink sink(most);
  cms::AccessUnitAssembler assembler(sink, format, most);
  std::uint32_t timestamp = 0;
  while (!input.empty()) {
    const std::uint8_t flags = fuzz::TakeByte(input);
    const auto block = fuzz::TakeBlock(input);
    if ((flags & 8) != 0) {
      assembler.KeepParameterSet(block);
      continue;
    }
    timestamp += (flags & 4) != 0 ? 3600 : 0;
    assembler.Take({block, timestamp, (flags & 1) != 0, (flags & 2) != 0});
  }
  return 0;
}
