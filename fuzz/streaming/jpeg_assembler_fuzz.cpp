// Any payloads as JPEG, with any markers, time stamps and gaps: nothing outside a payload is read;
// each picture begins and ends as a JPEG does, is no longer than allowed and leaves its room as
// promised. The first bytes choose the described size and the limit; then a byte of flags in front
// of each block: marker, gap, a new time stamp.
#include <algorithm>
#include <cstring>

#include "cms/streaming/internal/jpeg_assembler.h"
#include "fuzz/streaming/rtp_input.h"
#include "fuzz/support/check.h"

namespace {

class JpegSink final : public cms::AccessUnitSink {
 public:
  explicit JpegSink(std::size_t most) : most_(most) {}

  void OnAccessUnit(const cms::AccessUnit& unit) override {
    CHECK(unit.data.size() > 2 && unit.data[0] == 0xFF && unit.data[1] == 0xD8);
    CHECK(unit.data[unit.data.size() - 2] == 0xFF && unit.data.back() == 0xD9);
    CHECK(unit.data.size() <= most_ + cms::UnitBuffer::kInsertRoom);
    const std::uint8_t* const end = unit.data.data() + unit.data.size();
    CHECK(std::all_of(end, end + cms::UnitBuffer::kTailRoom,
                      [](std::uint8_t byte) { return byte == 0; }));
    std::memset(unit.data.data() - cms::UnitBuffer::kFrontRoom, 0xEE, cms::UnitBuffer::kFrontRoom);
    CHECK(unit.key && unit.decodable);
  }

 private:
  const std::size_t most_;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const cms::PictureSize described{fuzz::TakeByte(input) * 16, fuzz::TakeByte(input) * 16};
  const std::size_t most = (fuzz::TakeByte(input) & 1) != 0 ? 300 : 100'000;
  JpegSink sink(most);
  cms::JpegAssembler assembler(sink, described, most);
  std::uint32_t timestamp = 0;
  while (!input.empty()) {
    const std::uint8_t flags = fuzz::TakeByte(input);
    const auto block = fuzz::TakeBlock(input);
    timestamp += (flags & 4) != 0 ? 3600 : 0;
    assembler.Take({block, timestamp, (flags & 1) != 0, (flags & 2) != 0});
  }
  return 0;
}
