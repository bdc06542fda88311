// Payloads of AAC as both ways of carrying it are fuzzed.
#pragma once

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>

#include "cms/streaming/internal/aac_block.h"
#include "cms/streaming/internal/aac_payload.h"
#include "fuzz/streaming/rtp_input.h"
#include "fuzz/support/check.h"

namespace fuzz {

// Any "fmtp" parameters, then any payloads with any markers, time stamps and gaps: nothing outside
// a payload is read, each block is one whole ADTS frame with the promised room around it. A block
// of text comes first, then a byte of flags in front of each payload: marker, gap, a new time.
template <class Assembler, class ReadPayload>
int AssembleAac(Input input, ReadPayload readPayload) {
  const auto text = fuzz::TakeBlock(input);
  std::string problem;
  const auto payload =
      readPayload({reinterpret_cast<const char*>(text.data()), text.size()}, 16'000, 1, &problem);
  CHECK(payload.has_value() == problem.empty());
  if (!payload) {
    return 0;
  }
  Assembler assembler(*payload);
  std::uint32_t timestamp = 0;
  while (!input.empty()) {
    const std::uint8_t flags = fuzz::TakeByte(input);
    const auto block = fuzz::TakeBlock(input);
    timestamp += (flags & 4) != 0 ? 1024 : 0;
    assembler.Take({block, timestamp, (flags & 1) != 0, (flags & 2) != 0});
    while (const auto unit = assembler.Next()) {
      const auto read = cms::ReadAdtsFrame(unit->block);
      CHECK(read && unit->block.size() > cms::kAdtsHeaderSize);
      const std::uint8_t* const end = unit->block.data() + unit->block.size();
      CHECK(std::all_of(end, end + cms::AacBlock::kTailRoom,
                        [](std::uint8_t byte) { return byte == 0; }));
      std::memset(unit->block.data() - cms::AacBlock::kFrontRoom, 0xEE, cms::AacBlock::kFrontRoom);
    }
  }
  return 0;
}

}  // namespace fuzz
