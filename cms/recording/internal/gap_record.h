// The record of the gap log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace cms {

// 232 bytes, written as they lie; docs/formats.md tells what each means.
struct GapRecord {
  char16_t siteName[32] = {};
  char16_t address[64] = {};
  std::uint16_t port = 0;
  std::uint8_t cause = 0;
  std::uint8_t reserved195 = 0;
  std::uint32_t siteNumber = 0;
  std::int32_t error = 0;
  std::uint32_t reserved204 = 0;
  std::int64_t from = 0;
  std::int64_t to = 0;
  std::int64_t updated = 0;

  bool operator==(const GapRecord&) const = default;
};
static_assert(sizeof(GapRecord) == 232 && std::is_trivially_copyable_v<GapRecord>);
static_assert(offsetof(GapRecord, address) == 64 && offsetof(GapRecord, port) == 192 &&
              offsetof(GapRecord, cause) == 194 && offsetof(GapRecord, siteNumber) == 196 &&
              offsetof(GapRecord, error) == 200 && offsetof(GapRecord, from) == 208 &&
              offsetof(GapRecord, to) == 216 && offsetof(GapRecord, updated) == 224);

}  // namespace cms
