#include "tools/testcamera/onvif/device_clock.h"

#include <stdexcept>

namespace testcamera {

DeviceClock::DeviceClock(std::int64_t offset, const std::string& zone) : offset_(offset) {
  SetZone(zone);
}

void DeviceClock::SetZone(const std::string& zone) {
  GTimeZone* rules = g_time_zone_new_identifier(zone.c_str());
  if (rules == nullptr) {
    throw std::runtime_error("\"" + zone + "\" is no time zone such as CET-1CEST,M3.5.0,M10.5.0/3");
  }
  rules_.reset(rules);
  zone_ = zone;
}

std::int64_t DeviceClock::Now() const {
  return g_get_real_time() / G_USEC_PER_SEC + offset_;
}

DateTimePtr DeviceClock::Utc() const {
  return DateTimePtr(g_date_time_new_from_unix_utc(Now()));
}

DateTimePtr DeviceClock::Local() const {
  return DateTimePtr(g_date_time_to_timezone(Utc().get(), rules_.get()));
}

std::optional<std::int64_t> ParseDateTime(const std::string& text) {
  GTimeZone* utc = g_time_zone_new_utc();
  const DateTimePtr time(g_date_time_new_from_iso8601(text.c_str(), utc));
  g_time_zone_unref(utc);
  if (time == nullptr) {
    return std::nullopt;
  }
  return g_date_time_to_unix(time.get());
}

}  // namespace testcamera
