// The record of the list of protected spans, and what it says.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <type_traits>

#include "cms/recording/keep/internal/site_times.h"

namespace cms {

// 32 bytes, written as they lie; docs/formats.md tells what each means.
struct ProtectionRecord {
  std::int64_t from = 0;
  std::int64_t to = 0;
  std::int64_t since = 0;
  std::uint32_t site = 0;
  std::uint32_t reserved = 0;
};
static_assert(sizeof(ProtectionRecord) == 32 && std::is_trivially_copyable_v<ProtectionRecord>);
static_assert(offsetof(ProtectionRecord, since) == 16 && offsetof(ProtectionRecord, site) == 24);

// Empty, or why the list could not be read to its end: nothing may be removed then.
std::string ReadProtection(const std::string& root, SiteTimes& times);

}  // namespace cms
