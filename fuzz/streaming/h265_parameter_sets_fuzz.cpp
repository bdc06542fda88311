// Any bytes as a sequence parameter set of H.265: nothing outside them is read, what is said lies
// within its limits, and what a longer set says of its format a shorter one does not deny.
#include <vector>

#include "cms/streaming/internal/h265_parameter_sets.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::vector<std::uint8_t> bytes(data, data + size);  // a block of its exact size
  const auto set = cms::ReadH265Sps(bytes);
  if (!set) {
    return 0;
  }
  CHECK(set->number <= 15 && set->chromaFormat <= 3);
  CHECK(set->size.width > 0 && set->size.width <= 65536);
  CHECK(set->size.height > 0 && set->size.height <= 65536);
  CHECK(set->lumaBits >= 8 && set->lumaBits <= 16);
  const std::vector<std::uint8_t> shorter(bytes.begin(), bytes.end() - 1);
  const auto cut = cms::ReadH265Sps(shorter);
  CHECK(!cut || cut->size == set->size);
  return 0;
}
