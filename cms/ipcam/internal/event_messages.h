// What is asked of a pull point (ONVIF Core, section "Event handling"; OASIS WS-BaseNotification
// 1.3), and what comes back. Answers are in the spelling of Normalized.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/camera_event.h"

namespace cms {

// An action with its request's body.
struct EventRequest {
  std::wstring_view action;
  std::wstring body;
};
EventRequest CreatePullPointRequest(int lifetimeSeconds);
EventRequest PullMessagesRequest(int waitSeconds, int mostMessages);
EventRequest SynchronizationRequest();
EventRequest RenewalRequest(int lifetimeSeconds);
EventRequest UnsubscriptionRequest();

// The headers by which a request says what it is and which of the camera's endpoints it is for (WS-
// Addressing 1.0, section 3.4): `reference` are those that the endpoint's reference came with.
std::wstring AddressingHeaders(std::wstring_view action, std::wstring_view address,
                               std::wstring_view reference);

struct PullPoint {
  std::wstring address;
  std::wstring reference;  // reference parameters, as headers
  int lifetimeSeconds = 0;
};
std::optional<PullPoint> ParsePullPoint(std::wstring_view answer);

// Seconds until the subscription ends by what the answer says; nothing when it does not.
std::optional<int> LifetimeOf(std::wstring_view answer);

enum class PropertyOperation { kNone, kInitialized, kChanged, kDeleted };

struct PulledEvent {
  CameraEvent event;
  PropertyOperation operation = PropertyOperation::kNone;
};
// Nothing when it is no answer to PullMessages. `receivedMs` goes into the events.
std::optional<std::vector<PulledEvent>> ParsePulledEvents(std::wstring_view answer,
                                                          std::int64_t receivedMs);

// What a fault of PullMessages says that the camera takes; nothing when it is not about that.
struct PullLimits {
  int waitSeconds = 0;
  int mostMessages = 0;
};
std::optional<PullLimits> ParsePullLimits(std::wstring_view fault);

// By the names in the topic, whatever their prefixes are.
CameraEventKind KindOfTopic(std::string_view topic);

// Milliseconds since 1970 of an xsd:dateTime, which says UTC when it names no zone.
std::optional<std::int64_t> DateTimeMs(std::wstring_view text);
// Of an xsd:duration of days and less.
std::optional<int> DurationSeconds(std::wstring_view text);

}  // namespace cms
