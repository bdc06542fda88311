#include "tools/service/config_check.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "cms/runtime/clock.h"
#include "tools/support/time_text.h"
#include "tools/support/transport_words.h"

namespace tools {
namespace {

using nlohmann::ordered_json;

const char* NameOf(PlanMode mode) {
  switch (mode) {
    case PlanMode::kAlways:
      return "always";
    case PlanMode::kEvents:
      return "events";
    case PlanMode::kNever:
      break;
  }
  return "never";
}

ordered_json JsonOfProblems(const std::vector<ConfigProblem>& problems) {
  ordered_json all = ordered_json::array();
  for (const ConfigProblem& each : problems) {
    all.push_back({{"line", each.line}, {"column", each.column}, {"what", each.what}});
  }
  return all;
}

ordered_json JsonOfSite(const SiteConfig& site, const Timetable& plan, std::int64_t now) {
  const std::int64_t change = plan.NextChange(now);
  return {{"site", site.number},
          {"name", site.name},
          {"enabled", site.enabled},
          {"url", site.url},
          {"user", site.user},
          {"password", site.password.empty() ? "none" : "given"},
          {"transport", TransportWord(site.transport)},
          {"disk", site.disk},
          {"plan", site.plan},
          {"time_zone", site.timeZone.Name()},
          {"now", NameOf(plan.At(now))},
          {"next_change", change == Timetable::kNever ? ordered_json() : ordered_json(change)},
          {"pre_alarm", site.preAlarm},
          {"keep_days", site.retention.days},
          {"keep_bytes", site.retention.bytes}};
}

ordered_json JsonOfConfig(const RecorderConfig& config, std::int64_t now) {
  ordered_json disks = ordered_json::array();
  for (const DiskConfig& each : config.disks) {
    disks.push_back({{"path", each.path},
                     {"limit", each.bytes},
                     {"free", each.freeBytes},
                     {"mount", each.mount}});
  }
  ordered_json sites = ordered_json::array();
  for (const SiteConfig& each : config.sites) {
    sites.push_back(JsonOfSite(each, PlanOf(config, each), now));
  }
  const PageConfig& page = config.page;
  return {
      {"disks", disks},
      {"page", page.on ? ordered_json{{"bind", page.bind}, {"port", page.port}} : ordered_json()},
      {"sites", sites}};
}

void PrintSite(const ordered_json& site) {
  std::printf("site %u  %s  %s  ", site.at("site").get<unsigned>(),
              site.at("name").get<std::string>().c_str(),
              site.at("url").get<std::string>().c_str());
  if (!site.at("enabled").get<bool>()) {
    std::printf("not enabled\n");
    return;
  }
  std::printf("plan %s: now %s", site.at("plan").get<std::string>().c_str(),
              site.at("now").get<std::string>().c_str());
  if (!site.at("next_change").is_null()) {
    std::printf(" until %s", LocalTime(site.at("next_change").get<std::int64_t>()).c_str());
  }
  std::printf("\n");
}

}  // namespace

void TellProblems(const std::string& path, const ConfigProblems& problems) {
  for (const std::string& line : LinesOf(path, problems.warnings)) {
    std::fprintf(stderr, "orvanta record: warning: %s\n", line.c_str());
  }
  for (const std::string& line : LinesOf(path, problems.errors)) {
    std::fprintf(stderr, "orvanta record: %s\n", line.c_str());
  }
}

int CheckRecorderConfig(const std::string& path, bool json) {
  ConfigProblems problems;
  const RecorderConfig config = ReadRecorderConfig(path, &problems);
  const bool sound = problems.errors.empty();
  const ordered_json asked =
      sound ? JsonOfConfig(config, cms::WallSeconds()) : ordered_json::object();
  if (json) {
    ordered_json told{{"file", path},
                      {"errors", JsonOfProblems(problems.errors)},
                      {"warnings", JsonOfProblems(problems.warnings)}};
    told.update(asked);
    std::printf("%s\n", told.dump(2, ' ', false, ordered_json::error_handler_t::replace).c_str());
  } else {
    TellProblems(path, problems);
    for (const auto& site : asked.value("sites", ordered_json::array())) {
      PrintSite(site);
    }
  }
  return sound ? 0 : kWrongFile;
}

}  // namespace tools
