// Any bytes as the head of a .drv file: the place found is what a plain look at every place gives.
#include <span>

#include "cms/recording/drv_format.h"
#include "fuzz/support/check.h"

namespace {

std::size_t PlainLook(std::span<const std::uint8_t> head) {
  for (std::size_t p = 0; head.size() >= 4096 && p < 4080; ++p) {
    std::uint8_t check = 0;
    for (std::size_t i = 0; i < 16; ++i) {
      check = static_cast<std::uint8_t>(check ^ head[p + i]);
    }
    const char kind = static_cast<char>(head[p + 1]);
    if (head[p] == '@' && check == 0 &&
        (kind == '2' || kind == '6' || kind == '8' || kind == 'v')) {
      return p;
    }
  }
  return 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> head(data, size);
  CHECK(cms::FirstDrvHeader(head) == PlainLook(head));
  return 0;
}
