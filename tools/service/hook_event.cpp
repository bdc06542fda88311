#include "tools/service/hook_event.h"

#include <array>
#include <nlohmann/json.hpp>

#include "tools/support/time_text.h"

namespace tools {
namespace {

constexpr std::array kEventNames = {
    "service-started", "service-stopped", "site-lost",        "site-back",          "gap-begun",
    "gap-ended",       "event-begun",     "event-ended",      "disk-low",           "disk-full",
    "disk-failed",     "disk-back",       "retention-behind", "retention-keeps-up",
};

}  // namespace

const char* HookEventName(HookEventKind kind) {
  return kEventNames.at(static_cast<std::size_t>(kind));
}

std::optional<HookEventKind> HookEventOf(std::string_view name) {
  for (std::size_t i = 0; i < kEventNames.size(); ++i) {
    if (name == kEventNames[i]) {
      return static_cast<HookEventKind>(i);
    }
  }
  return std::nullopt;
}

std::vector<std::string> HookEventNames() {
  return {kEventNames.begin(), kEventNames.end()};
}

std::string HookJson(const HookEvent& event) {
  nlohmann::ordered_json json = {{"event", HookEventName(event.kind)}, {"time", event.time}};
  if (event.site != 0) {
    json["site"] = event.site;
    json["name"] = event.siteName;
  }
  if (!event.disk.empty()) {
    json["disk"] = event.disk;
  }
  if (!event.cause.empty()) {
    json["cause"] = event.cause;
  }
  if (!event.detail.empty()) {
    json["detail"] = event.detail;
  }
  if (event.seconds > 0) {
    json["seconds"] = event.seconds;
  }
  // A path need not be UTF-8.
  return json.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

std::vector<std::pair<std::string, std::string>> HookVariables(const HookEvent& event) {
  std::vector<std::pair<std::string, std::string>> variables = {
      {"ORVANTA_EVENT", HookEventName(event.kind)},
      {"ORVANTA_TIME", std::to_string(event.time)},
      {"ORVANTA_TIME_TEXT", LocalTime(event.time)},
  };
  if (event.site != 0) {
    variables.emplace_back("ORVANTA_SITE", std::to_string(event.site));
    variables.emplace_back("ORVANTA_SITE_NAME", event.siteName);
  }
  for (const auto& [name, value] :
       {std::pair("ORVANTA_DISK", &event.disk), std::pair("ORVANTA_CAUSE", &event.cause),
        std::pair("ORVANTA_DETAIL", &event.detail)}) {
    if (!value->empty()) {
      variables.emplace_back(name, *value);
    }
  }
  if (event.seconds > 0) {
    variables.emplace_back("ORVANTA_SECONDS", std::to_string(event.seconds));
  }
  return variables;
}

}  // namespace tools
