#include "cms/ipcam/internal/event_messages.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <utility>

#include "cms/ipcam/internal/onvif_device.h"
#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/soap_envelope.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/text.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr int kMaxLifetime = 86'400;  // of a subscription: beyond it nothing depends on the number

std::wstring Duration(int seconds) {
  return L"PT" + std::to_wstring(seconds) + L"S";
}

std::string Shown(std::wstring text) {
  return Utf8FromWide(Plain(std::move(text)));
}

std::vector<CameraEventItem> ItemsOf(std::wstring_view message, std::wstring_view part) {
  std::vector<CameraEventItem> items;
  std::wstring_view rest = ElementContent(message, part);
  for (std::wstring_view one; TakeElement(rest, L"tt:SimpleItem", one);) {
    items.push_back({Shown(AttributeOf(one, L"Name")), Shown(AttributeOf(one, L"Value"))});
  }
  return items;
}

bool Is(const std::string& text, std::string_view word) {
  return EqualAnyCase(text, word);
}

// The words that stand for on and off: xsd:boolean's, and of inputs and relays those of
// tt:RelayLogicalState. Numbers say it only where the name says that it is a state.
CameraEventState StateOf(const std::vector<CameraEventItem>& data) {
  static constexpr std::string_view kStateNames[] = {"State", "IsMotion", "LogicalState",
                                                     "IsTamper", "IsInside"};
  for (const CameraEventItem& item : data) {
    const std::string& name = item.name;
    const std::string& value = item.value;
    if (Is(value, "true") || Is(value, "active")) {
      return CameraEventState::kOn;
    }
    if (Is(value, "false") || Is(value, "inactive")) {
      return CameraEventState::kOff;
    }
    const bool isState =
        std::ranges::any_of(kStateNames, [&](std::string_view known) { return Is(name, known); });
    if (isState && (value == "0" || value == "1")) {
      return value == "1" ? CameraEventState::kOn : CameraEventState::kOff;
    }
  }
  return CameraEventState::kNone;
}

PropertyOperation OperationOf(std::wstring_view message) {
  const std::wstring text = AttributeOf(message, L"PropertyOperation");
  return text == L"Initialized" ? PropertyOperation::kInitialized
         : text == L"Changed"   ? PropertyOperation::kChanged
         : text == L"Deleted"   ? PropertyOperation::kDeleted
                                : PropertyOperation::kNone;
}

// Takes a decimal number of so many digits off the text, -1 when it is none.
int TakeNumber(std::wstring_view& text, std::size_t digits) {
  int number = 0;
  for (std::size_t i = 0; i < digits; ++i) {
    if (text.empty() || text.front() < L'0' || text.front() > L'9') {
      return -1;
    }
    number = number * 10 + (text.front() - L'0');
    text.remove_prefix(1);
  }
  return number;
}

bool Skip(std::wstring_view& text, wchar_t character) {
  const bool there = text.starts_with(character);
  text.remove_prefix(there ? 1 : 0);
  return there;
}

// Minutes of "+01:00", "-0530" or "Z"; 0 when no zone is named.
int ZoneMinutes(std::wstring_view text) {
  const int sign = text.starts_with(L'-') ? -1 : 1;
  if (!Skip(text, L'+') && !Skip(text, L'-')) {
    return 0;
  }
  const int hours = TakeNumber(text, 2);
  Skip(text, L':');
  const int minutes = TakeNumber(text, 2);
  return hours < 0 || minutes < 0 ? 0 : sign * (hours * 60 + minutes);
}

// An element of a reference's parameters as a header: with the mark that it is one, and with the
// declaration of its prefix where that stands outside of it.
std::wstring AsHeader(std::wstring_view element, std::wstring_view name, std::wstring_view answer) {
  std::wstring header(element);
  std::wstring marks = L" wsa5:IsReferenceParameter=\"true\"";
  if (const std::size_t colon = name.find(L':'); colon != std::wstring_view::npos) {
    const std::wstring declaration = L" xmlns:" + std::wstring(name.substr(0, colon)) + L"=\"";
    const std::size_t declared = answer.find(declaration);
    if (header.find(declaration) == std::wstring::npos && declared != std::wstring_view::npos) {
      const std::wstring_view uri = answer.substr(declared + declaration.size());
      marks += declaration + std::wstring(uri.substr(0, uri.find(L'"'))) + L"\"";
    }
  }
  header.insert(1 + name.size(), marks);
  return header;
}

std::wstring ReferenceHeaders(std::wstring_view parameters, std::wstring_view answer) {
  constexpr std::size_t kMostParameters = 16;
  std::wstring headers;
  for (std::size_t i = 0; i < kMostParameters; ++i) {
    const std::size_t bracket = parameters.find(L'<');
    if (bracket == std::wstring_view::npos) {
      break;
    }
    parameters.remove_prefix(bracket);
    const std::wstring name(parameters.substr(1, parameters.find_first_of(L" \t\r\n/>") - 1));
    const std::wstring_view before = parameters;
    std::wstring_view inside;
    if (name.empty() || !TakeElement(parameters, name, inside)) {
      break;
    }
    headers += AsHeader(before.substr(0, before.size() - parameters.size()), name, answer);
  }
  return headers;
}

struct TopicWord {
  std::string_view word;  // of the topic's path, in lower case
  CameraEventKind kind;
};
// In the order in which they are looked for: "VideoSource/GlobalSceneChange" is tampering though a
// rule may be called motion.
constexpr TopicWord kTopicWords[] = {
    {"digitalinput", CameraEventKind::kInput},
    {"signalloss", CameraEventKind::kVideoLoss},
    {"videoloss", CameraEventKind::kVideoLoss},
    {"tamper", CameraEventKind::kTampering},
    {"globalscenechange", CameraEventKind::kTampering},
    {"imagetoo", CameraEventKind::kTampering},
    {"linedetector", CameraEventKind::kLineCrossing},
    {"linecross", CameraEventKind::kLineCrossing},
    {"motion", CameraEventKind::kMotion},
};

}  // namespace

EventRequest CreatePullPointRequest(int lifetimeSeconds) {
  return {
      L"http://www.onvif.org/ver10/events/wsdl/EventPortType/CreatePullPointSubscriptionRequest",
      L"<tev:CreatePullPointSubscription><tev:InitialTerminationTime>" + Duration(lifetimeSeconds) +
          L"</tev:InitialTerminationTime></tev:CreatePullPointSubscription>"};
}

EventRequest PullMessagesRequest(int waitSeconds, int mostMessages) {
  return {L"http://www.onvif.org/ver10/events/wsdl/PullPointSubscription/PullMessagesRequest",
          L"<tev:PullMessages><tev:Timeout>" + Duration(waitSeconds) +
              L"</tev:Timeout><tev:MessageLimit>" + std::to_wstring(mostMessages) +
              L"</tev:MessageLimit></tev:PullMessages>"};
}

EventRequest SynchronizationRequest() {
  return {
      L"http://www.onvif.org/ver10/events/wsdl/PullPointSubscription/"
      L"SetSynchronizationPointRequest",
      L"<tev:SetSynchronizationPoint/>"};
}

EventRequest RenewalRequest(int lifetimeSeconds) {
  return {L"http://docs.oasis-open.org/wsn/bw-2/SubscriptionManager/RenewRequest",
          L"<wsnt:Renew><wsnt:TerminationTime>" + Duration(lifetimeSeconds) +
              L"</wsnt:TerminationTime></wsnt:Renew>"};
}

EventRequest UnsubscriptionRequest() {
  return {L"http://docs.oasis-open.org/wsn/bw-2/SubscriptionManager/UnsubscribeRequest",
          L"<wsnt:Unsubscribe/>"};
}

std::wstring AddressingHeaders(std::wstring_view action, std::wstring_view address,
                               std::wstring_view reference) {
  const auto element = [](std::wstring_view name, std::wstring_view text) {
    return L"<wsa5:" + std::wstring(name) + L">" + XmlEscaped(text) + L"</wsa5:" +
           std::wstring(name) + L">";
  };
  std::wstring headers =
      element(L"MessageID", RandomUuid()) + element(L"Action", action) + element(L"To", address);
  headers += reference;
  return headers;
}

std::optional<int> LifetimeOf(std::wstring_view answer) {
  const auto current = DateTimeMs(TextOf(answer, L"wsnt:CurrentTime"));
  const auto end = DateTimeMs(TextOf(answer, L"wsnt:TerminationTime"));
  const auto currentOfPull = DateTimeMs(TextOf(answer, L"tev:CurrentTime"));
  const auto endOfPull = DateTimeMs(TextOf(answer, L"tev:TerminationTime"));
  const auto between = [](std::int64_t from, std::int64_t to) {
    return static_cast<int>(std::clamp<std::int64_t>((to - from) / 1000, 0, kMaxLifetime));
  };
  if (current && end) {
    return between(*current, *end);
  }
  if (currentOfPull && endOfPull) {
    return between(*currentOfPull, *endOfPull);
  }
  return std::nullopt;
}

std::optional<PullPoint> ParsePullPoint(std::wstring_view answer) {
  constexpr int kUsualLifetime = 60;
  const std::wstring_view reference = ElementContent(answer, L"tev:SubscriptionReference");
  PullPoint point;
  point.address = TextOf(reference, L"wsa5:Address");
  if (point.address.empty()) {
    return std::nullopt;
  }
  point.reference =
      ReferenceHeaders(ElementContent(reference, L"wsa5:ReferenceParameters"), answer);
  point.lifetimeSeconds = LifetimeOf(answer).value_or(kUsualLifetime);
  return point;
}

std::optional<std::vector<PulledEvent>> ParsePulledEvents(std::wstring_view answer,
                                                          std::int64_t receivedMs) {
  if (answer.find(L"<tev:PullMessagesResponse") == std::wstring_view::npos) {
    return std::nullopt;
  }
  std::vector<PulledEvent> events;
  for (std::wstring_view one; TakeElement(answer, L"wsnt:NotificationMessage", one);) {
    std::wstring_view rest = one;
    std::wstring_view message;
    PulledEvent pulled;
    CameraEvent& event = pulled.event;
    event.topic = Shown(TextOf(one, L"wsnt:Topic"));
    event.receivedMs = receivedMs;
    event.kind = KindOfTopic(event.topic);
    if (TakeElement(rest, L"tt:Message", message)) {
      event.cameraMs = DateTimeMs(AttributeOf(message, L"UtcTime")).value_or(0);
      event.source = ItemsOf(message, L"tt:Source");
      event.key = ItemsOf(message, L"tt:Key");
      event.data = ItemsOf(message, L"tt:Data");
      event.state = StateOf(event.data);
      pulled.operation = OperationOf(message);
    }
    events.push_back(std::move(pulled));
  }
  return events;
}

std::optional<PullLimits> ParsePullLimits(std::wstring_view fault) {
  constexpr int kMostAskedFor = 1'000;
  constexpr int kLongestWait = 3'600;
  const std::wstring_view detail = ElementContent(fault, L"tev:PullMessagesFaultResponse");
  const auto wait = DurationSeconds(TextOf(detail, L"tev:MaxTimeout"));
  const int most = IntegerOf(detail, L"tev:MaxMessageLimit");
  if (!wait || most <= 0) {
    return std::nullopt;
  }
  return PullLimits{std::clamp(*wait, 1, kLongestWait), std::min(most, kMostAskedFor)};
}

CameraEventKind KindOfTopic(std::string_view topic) {
  std::string names;  // "/videosource/motionalarm"
  while (!topic.empty()) {
    const std::string_view segment = topic.substr(0, topic.find('/'));
    topic.remove_prefix(std::min(segment.size() + 1, topic.size()));
    const std::size_t colon = segment.find(':');
    names += '/';
    for (const char c : segment.substr(colon == std::string_view::npos ? 0 : colon + 1)) {
      names += c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    }
  }
  for (const TopicWord& each : kTopicWords) {
    if (names.find(each.word) != std::string::npos) {
      return each.kind;
    }
  }
  return CameraEventKind::kOther;
}

std::optional<std::int64_t> DateTimeMs(std::wstring_view text) {
  std::tm fields{};
  const int year = TakeNumber(text, 4);
  const bool date = Skip(text, L'-');
  const int month = TakeNumber(text, 2);
  Skip(text, L'-');
  fields.tm_mday = TakeNumber(text, 2);
  const bool time = Skip(text, L'T') || Skip(text, L' ');
  fields.tm_hour = TakeNumber(text, 2);
  Skip(text, L':');
  fields.tm_min = TakeNumber(text, 2);
  Skip(text, L':');
  fields.tm_sec = TakeNumber(text, 2);
  const bool valid = date && time && year >= 1900 && month >= 1 && month <= 12 &&
                     fields.tm_mday >= 1 && fields.tm_mday <= 31 && fields.tm_hour >= 0 &&
                     fields.tm_hour <= 24 && fields.tm_min >= 0 && fields.tm_min <= 59 &&
                     fields.tm_sec >= 0 && fields.tm_sec <= 60;
  if (!valid) {
    return std::nullopt;
  }
  fields.tm_year = year - 1900;
  fields.tm_mon = month - 1;
  std::int64_t milliseconds = 0;
  if (Skip(text, L'.')) {
    for (int weight = 100; !text.empty() && text.front() >= L'0' && text.front() <= L'9';
         weight /= 10) {
      milliseconds += weight * (text.front() - L'0');
      text.remove_prefix(1);
    }
  }
  return (static_cast<std::int64_t>(timegm(&fields)) - ZoneMinutes(text) * 60) * 1000 +
         milliseconds;
}

std::optional<int> DurationSeconds(std::wstring_view text) {
  constexpr double kLongest = 1e6;
  double seconds = 0;
  if (!Skip(text, L'P') || text.empty()) {
    return std::nullopt;
  }
  bool time = false;
  while (!text.empty()) {
    if (Skip(text, L'T')) {
      time = true;
      continue;
    }
    double number = 0;
    double scale = 0;  // of the digits behind the point
    std::size_t length = 0;
    for (; length < text.size() &&
           (text[length] == L'.' || (text[length] >= L'0' && text[length] <= L'9'));
         ++length) {
      if (text[length] == L'.') {
        scale = 1;
      } else {
        number = number * 10 + (text[length] - L'0');
        scale *= 10;
      }
    }
    constexpr std::size_t kMostDigits = 20;
    if (length == 0 || length > kMostDigits || length == text.size()) {
      return std::nullopt;
    }
    number /= scale > 1 ? scale : 1;
    const wchar_t unit = text[length];
    const double factor = !time && unit == L'D'  ? 86'400
                          : time && unit == L'H' ? 3'600
                          : time && unit == L'M' ? 60
                          : time && unit == L'S' ? 1
                                                 : -1;
    if (factor < 0) {
      return std::nullopt;
    }
    seconds += number * factor;
    text.remove_prefix(length + 1);
  }
  return static_cast<int>(std::min(seconds, kLongest));
}

}  // namespace cms
