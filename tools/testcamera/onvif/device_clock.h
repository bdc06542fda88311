// The camera's own clock: ahead of or behind the machine's, in a time zone of its own.
#pragma once

#include <glib.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace testcamera {

struct DateTimeUnref {
  void operator()(GDateTime* time) const { g_date_time_unref(time); }
};
using DateTimePtr = std::unique_ptr<GDateTime, DateTimeUnref>;

class DeviceClock {
 public:
  // The zone as in the variable TZ (POSIX), such as "CET-1CEST,M3.5.0,M10.5.0/3". Throws
  // std::runtime_error when it is none.
  DeviceClock(std::int64_t offset, const std::string& zone);

  void SetOffset(std::int64_t seconds) { offset_ = seconds; }
  void SetZone(const std::string& zone);  // throws like the constructor
  const std::string& Zone() const { return zone_; }

  std::int64_t Now() const;  // seconds since 1970 by the camera's clock
  DateTimePtr Utc() const;
  DateTimePtr Local() const;

 private:
  struct ZoneUnref {
    void operator()(GTimeZone* zone) const { g_time_zone_unref(zone); }
  };

  std::int64_t offset_;
  std::string zone_;
  std::unique_ptr<GTimeZone, ZoneUnref> rules_;
};

// Seconds since 1970 of an xsd:dateTime such as "2024-05-06T07:08:09Z", which says UTC when it
// names no zone; nothing when it is none.
std::optional<std::int64_t> ParseDateTime(const std::string& text);

}  // namespace testcamera
