#include "tools/service/time_zone.h"

#include <glib.h>

#include <ctime>

namespace tools {
namespace {

GTimeZone* RulesOf(const std::shared_ptr<void>& rules) {
  return static_cast<GTimeZone*>(rules.get());
}

}  // namespace

std::optional<TimeZone> TimeZone::Named(const std::string& name) {
  GTimeZone* const rules = name.empty() ? nullptr : g_time_zone_new_identifier(name.c_str());
  if (rules == nullptr) {
    return std::nullopt;
  }
  TimeZone zone;
  zone.name_ = name;
  zone.rules_.reset(rules, [](void* each) { g_time_zone_unref(static_cast<GTimeZone*>(each)); });
  return zone;
}

std::int64_t TimeZone::OffsetAt(std::int64_t moment) const {
  if (rules_) {
    const gint interval = g_time_zone_find_interval(RulesOf(rules_), G_TIME_TYPE_UNIVERSAL, moment);
    return g_time_zone_get_offset(RulesOf(rules_), interval);
  }
  const std::time_t time = moment;
  std::tm local{};
  localtime_r(&time, &local);
  return local.tm_gmtoff;
}

}  // namespace tools
