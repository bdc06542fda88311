#include "tools/commands/onvif_events_command.h"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/ipcam/onvif_events.h"
#include "tools/support/stop_signal.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

const char* StateWord(cms::CameraEventState state) {
  return state == cms::CameraEventState::kOn    ? "on"
         : state == cms::CameraEventState::kOff ? "off"
                                                : "";
}

nlohmann::ordered_json ItemsJson(const std::vector<cms::CameraEventItem>& items) {
  nlohmann::ordered_json object = nlohmann::ordered_json::object();
  for (const auto& [name, value] : items) {
    object[name] = value;
  }
  return object;
}

void PrintEventJson(const cms::CameraEvent& event) {
  const char* const state = StateWord(event.state);
  const nlohmann::ordered_json line{
      {"kind", cms::CameraEventKindName(event.kind)},
      {"state", *state == '\0' ? nlohmann::ordered_json(nullptr) : nlohmann::ordered_json(state)},
      {"initial", event.initial},
      {"topic", event.topic},
      {"source", ItemsJson(event.source)},
      {"key", ItemsJson(event.key)},
      {"data", ItemsJson(event.data)},
      {"camera_ms", event.cameraMs},
      {"received_ms", event.receivedMs}};
  std::printf("%s\n", line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

void PrintText(const cms::CameraEvent& event) {
  std::string items;
  for (const auto* list : {&event.source, &event.key, &event.data}) {
    for (const auto& [name, value] : *list) {
      items += ' ' + name + '=' + value;
    }
  }
  std::printf("%s  %-10s %-3s %s%s%s\n", LocalTime(event.receivedMs / 1000).c_str(),
              cms::CameraEventKindName(event.kind), StateWord(event.state), event.topic.c_str(),
              items.c_str(), event.initial ? "  (as it was)" : "");
}

int PrintEvents(const SiteArguments& site, double seconds) {
  std::atomic<bool> subscribed = false;
  cms::OnvifEvents events;
  const unsigned number = events.Subscribe(
      AccessOf(site),
      [&site](const cms::CameraEvent& event) {
        site.json ? PrintEventJson(event) : PrintText(event);
        std::fflush(stdout);
      },
      [&subscribed](const cms::OnvifEventStatus& status) {
        subscribed = subscribed || status.subscribed;
        if (!status.subscribed) {
          std::fprintf(stderr, "orvanta onvif: %s\n", status.error.c_str());
        }
      });
  if (seconds > 0) {
    WaitForStop(std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000)));
  } else {
    WaitForStop();
  }
  events.Unsubscribe(number);
  return subscribed ? 0 : 1;
}

}  // namespace

void AddOnvifEventsCommand(Command onvif, const SiteArguments& site, CommandResult& result) {
  const Command events = onvif.Add(
      "events", "What the camera tells, as it comes; with --json one object on each line");
  auto seconds = std::make_shared<double>(0);
  events.AddOption("--seconds", *seconds, "End after so many").Positive();
  events.RunWithParent([&site, seconds, &result] { result.status = PrintEvents(site, *seconds); });
}

}  // namespace tools
