#include "fleet/day_record.h"

#include <charconv>
#include <chrono>
#include <cstdio>

#include "fleet/fleet_view.h"

namespace cms::fleet {
namespace {

constexpr std::size_t kSiteBytes = 4;
constexpr std::size_t kHourBytes = 3;
constexpr std::size_t kTokenBytes = 8;
constexpr std::size_t kDayRecordBytes = kSiteBytes + kHourBytes + kTokenBytes;
constexpr int kRevisionBits = 48;
constexpr std::size_t kDayDigits = 8;

void AppendNumber(std::string& bytes, std::uint64_t number, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) {
    bytes += static_cast<char>(number >> 8 * i & 0xFF);
  }
}

std::uint64_t TakeNumber(std::string_view& bytes, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i) {
    number |= std::uint64_t{static_cast<unsigned char>(bytes[i])} << 8 * i;
  }
  bytes.remove_prefix(size);
  return number;
}

}  // namespace

ClaimToken TokenOf(std::int64_t generation, std::int64_t claimRevision) {
  constexpr auto kMask = (std::uint64_t{1} << kRevisionBits) - 1;
  return static_cast<std::uint64_t>(generation) << kRevisionBits |
         (static_cast<std::uint64_t>(claimRevision) & kMask);
}

std::string EncodeDay(const DayRecord& record) {
  std::string bytes;
  bytes.reserve(record.size() * kDayRecordBytes);
  for (const auto& [site, held] : record) {
    AppendNumber(bytes, site, kSiteBytes);
    AppendNumber(bytes, held.hours, kHourBytes);
    AppendNumber(bytes, held.token, kTokenBytes);
  }
  return bytes;
}

std::optional<DayRecord> DecodeDay(std::string_view bytes) {
  if (bytes.size() % kDayRecordBytes != 0) {
    return std::nullopt;
  }
  DayRecord record;
  while (!bytes.empty()) {
    const auto site = static_cast<std::uint32_t>(TakeNumber(bytes, kSiteBytes));
    const auto hours = static_cast<std::uint32_t>(TakeNumber(bytes, kHourBytes));
    record[site] = {hours, TakeNumber(bytes, kTokenBytes)};
  }
  return record;
}

std::string DayKeyFrom(std::int64_t day) {
  const std::chrono::year_month_day date{std::chrono::sys_days{std::chrono::days{day}}};
  char text[32];
  std::snprintf(text, sizeof text, "%04d%02u%02u/", static_cast<int>(date.year()),
                static_cast<unsigned>(date.month()), static_cast<unsigned>(date.day()));
  return std::string(kDaysPrefix) + text;
}

std::string DayKey(std::int64_t day, std::string_view recorder) {
  return DayKeyFrom(day) + std::string(recorder);
}

std::optional<DayKeyParts> ReadDayKey(std::string_view key) {
  if (!key.starts_with(kDaysPrefix)) {
    return std::nullopt;
  }
  key.remove_prefix(std::string_view(kDaysPrefix).size());
  unsigned number = 0;
  if (key.size() <= kDayDigits || key[kDayDigits] != '/' ||
      !IsFleetName(key.substr(kDayDigits + 1))) {
    return std::nullopt;
  }
  const auto [stop, error] = std::from_chars(key.data(), key.data() + kDayDigits, number);
  const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(number / 10'000)),
                                         std::chrono::month(number / 100 % 100),
                                         std::chrono::day(number % 100)};
  if (error != std::errc() || stop != key.data() + kDayDigits || !date.ok()) {
    return std::nullopt;
  }
  return DayKeyParts{std::chrono::sys_days(date).time_since_epoch().count(),
                     std::string(key.substr(kDayDigits + 1))};
}

}  // namespace cms::fleet
