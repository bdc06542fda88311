// A zone's time, of this process or of another place.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace tools {

// Any thread; copies share what is known of the zone.
class TimeZone {
 public:
  TimeZone() = default;  // the process's (TZ)
  // Of the system's time zone database, such as "Europe/Berlin"; nothing when it has none of that
  // name.
  static std::optional<TimeZone> Named(const std::string& name);

  // Seconds that its clock is ahead of UTC at a moment, seconds since 1970-01-01 UTC.
  std::int64_t OffsetAt(std::int64_t moment) const;

  const std::string& Name() const { return name_; }  // empty: the process's
  bool operator==(const TimeZone& other) const { return name_ == other.name_; }

 private:
  std::string name_;
  std::shared_ptr<void> rules_;
};

}  // namespace tools
