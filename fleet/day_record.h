// What the engine's catalogue says of one recorder and one day: of which cameras it holds which
// hours. Kept apart from the keys that recorders follow: only who looks for recordings reads it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace cms::fleet {

inline constexpr char kDaysPrefix[] = "/orvanta/v1-days/";

// Who has the word on a minute that two recorders hold: the one that claimed the camera later. The
// generation of the fleet comes before the revision of the claim, which falls with a restored
// engine; 0: it never had a claim.
using ClaimToken = std::uint64_t;
ClaimToken TokenOf(std::int64_t generation, std::int64_t claimRevision);

struct DayHours {
  std::uint32_t hours = 0;  // bit H: something from H:00 to H:59 UTC
  ClaimToken token = 0;     // the last one that it recorded by on that day
  bool operator==(const DayHours&) const = default;
};

// By site numbers.
using DayRecord = std::map<std::uint32_t, DayHours>;

// 15 bytes a site, little-endian: number (4), hours (3), token (8).
std::string EncodeDay(const DayRecord& record);
std::optional<DayRecord> DecodeDay(std::string_view bytes);  // foreign: nullopt for what is none

// Days are counted from 1970-01-01 UTC.
std::string DayKey(std::int64_t day, std::string_view recorder);
std::string DayKeyFrom(std::int64_t day);  // where the keys of that day begin
struct DayKeyParts {
  std::int64_t day = 0;
  std::string recorder;
};
std::optional<DayKeyParts> ReadDayKey(std::string_view key);

}  // namespace cms::fleet
