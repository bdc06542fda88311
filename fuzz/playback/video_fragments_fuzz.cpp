// Whatever a camera sends as H.264: its header and its fragments are whole boxes, one behind the
// other, and fragments follow each other without a hole.
#include <algorithm>
#include <optional>
#include <vector>

#include "cms/playback/fragments/video_fragments.h"
#include "fuzz/support/check.h"

namespace {

std::uint64_t NumberAt(std::span<const std::uint8_t> bytes, std::size_t at, std::size_t size) {
  CHECK(at + size <= bytes.size());
  std::uint64_t number = 0;
  for (const std::uint8_t each : bytes.subspan(at, size)) {
    number = number << 8 | each;
  }
  return number;
}

void CheckBoxes(std::span<const std::uint8_t> bytes, std::size_t expected) {
  std::size_t count = 0;
  for (; !bytes.empty(); ++count) {
    const std::uint64_t size = NumberAt(bytes, 0, 4);
    CHECK(size >= 8 && size <= bytes.size());
    bytes = bytes.subspan(size);
  }
  CHECK(count == expected);
}

}  // namespace

// The input: pictures of two bytes of length, whose first says whether it is a key picture, a
// distance in time, and the bytes.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  constexpr std::int64_t kOrigin = 1'700'000'000'000'000;
  std::span<const std::uint8_t> left(data, size);
  cms::VideoFragments fragments(kOrigin);
  std::vector<std::uint8_t> out;
  std::optional<std::uint64_t> end;
  unsigned version = 0;
  std::int64_t time = kOrigin;
  while (left.size() > 3) {
    const std::size_t length =
        std::min<std::size_t>((left[0] & 0x7Fu) << 8 | left[1], left.size() - 3);
    time += (static_cast<std::int64_t>(left[2]) - 64) * 20'000;
    const bool key = (left[0] & 0x80u) != 0;
    out.clear();
    if (fragments.Append({left.subspan(3, length), key, time, 640, 360}, out)) {
      CheckBoxes(out, 2);
      const std::uint64_t begin = NumberAt(out, 60, 8);
      CHECK(!end || (key ? begin >= *end : begin == *end));
      end = begin + NumberAt(out, 88, 4);
    } else {
      CHECK(out.empty());
    }
    CHECK(fragments.Version() >= version);
    version = fragments.Version();
    CheckBoxes(fragments.Header(), fragments.Header().empty() ? 0 : 2);
    left = left.subspan(3 + length);
  }
  return 0;
}
