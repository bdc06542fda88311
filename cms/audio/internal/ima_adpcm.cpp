#include "cms/audio/internal/ima_adpcm.h"

namespace cms {
namespace {

constexpr ImaTable MakeTable() {
  ImaTable table{};
  for (int index = 0; index <= kMaximumStepIndex; ++index) {
    for (int code = 0; code < 16; ++code) {
      const int step = kImaSteps[static_cast<std::size_t>(index)];
      const int difference = ((code & 7) * 2 + 1) * step / 8;
      table[static_cast<std::size_t>(index)][static_cast<std::size_t>(code)] = {
          (code & 8) != 0 ? -difference : difference,
          ClampStepIndex(index + kImaIndexAdjustments[static_cast<std::size_t>(code)])};
    }
  }
  return table;
}

}  // namespace

constinit const ImaTable kImaTable = MakeTable();

}  // namespace cms
