// What hooks are told: something began or ended that somebody may want to know of at once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tools {

enum class HookEventKind {
  kServiceStarted,
  kServiceStopped,
  kSiteLost,  // it was wanted to play and does not
  kSiteBack,
  kGapBegun,  // what was wanted is not recorded
  kGapEnded,
  kEventBegun,  // of a camera: an event recording
  kEventEnded,
  kDiskLow,  // it will be full within a day
  kDiskFull,
  kDiskFailed,
  kDiskBack,  // usable again, with space
  kRetentionBehind,
  kRetentionKeepsUp,
};

// "service-started", "site-lost" ...: as configurations and messages call it.
const char* HookEventName(HookEventKind kind);
std::optional<HookEventKind> HookEventOf(std::string_view name);
std::vector<std::string> HookEventNames();

struct HookEvent {
  HookEventKind kind = HookEventKind::kServiceStarted;
  std::int64_t time = 0;     // seconds since 1970-01-01 UTC
  unsigned site = 0;         // 0: of no site
  std::string siteName;      // as configured
  std::string disk;          // its path; empty: of no disk
  std::string cause;         // of a gap or a fault, a few words
  std::string detail;        // one line for people: with address and what to do
  std::int64_t seconds = 0;  // how long what ended had lasted
};

// One JSON object in one line, without what does not apply.
std::string HookJson(const HookEvent& event);
// The same as variables, "ORVANTA_EVENT" first.
std::vector<std::pair<std::string, std::string>> HookVariables(const HookEvent& event);

}  // namespace tools
