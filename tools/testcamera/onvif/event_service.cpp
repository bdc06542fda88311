#include "tools/testcamera/onvif/event_service.h"

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <utility>

namespace testcamera {
namespace {

constexpr std::int64_t kSecond = G_USEC_PER_SEC;
constexpr int kMostMessages = 100;
constexpr int kLongestLifetime = 600;
constexpr std::size_t kMostWaiting = 1000;

std::string TimeText(std::int64_t microseconds) {
  const DateTimePtr time(g_date_time_new_from_unix_utc(microseconds / kSecond));
  const TextPtr text(g_date_time_format(time.get(), "%Y-%m-%dT%H:%M:%S"));
  char fraction[16];
  std::snprintf(fraction, sizeof fraction, ".%03dZ",
                static_cast<int>(microseconds % kSecond / 1000));
  return std::string(text.get()) + fraction;
}

// Seconds of "PT20S" or "PT1M"; -1 for what is none.
int DurationSeconds(const std::string& text) {
  int number = 0;
  char unit = 0;
  char rest = 0;
  if (std::sscanf(text.c_str(), "PT%d%c%c", &number, &unit, &rest) != 2 || number < 0 ||
      number > 100'000) {
    return -1;
  }
  return unit == 'S' ? number : unit == 'M' ? number * 60 : unit == 'H' ? number * 3600 : -1;
}

[[noreturn]] void NoSubscription() {
  throw SoapFault{"wsrf-rw:ResourceUnknownFault", "", "There is no such subscription"};
}

}  // namespace

EventService::EventService(CameraState& state, GMainContext* context, Send send)
    : state_(state),
      send_(std::move(send)),
      happenings_(state.onvif, context, [this](const Happening& each) { Tell(each); }),
      timer_(context, [this] { Look(); }) {}

EventService::~EventService() {
  for (PullPoint& point : points_) {
    if (point.pull != nullptr) {
      g_signal_handler_disconnect(point.pull.get(), point.gone);
    }
  }
}

void EventService::AddOperations(Operations* operations) {
  const auto add = [operations](const char* space, const char* name,
                                std::function<void(Call&)> run) {
    (*operations)[{space, name}] = {false, std::move(run)};
  };
  add(kEventsSpace, "CreatePullPointSubscription", [this](Call& call) { Create(call); });
  add(kEventsSpace, "PullMessages", [this](Call& call) { Pull(call); });
  add(kEventsSpace, "SetSynchronizationPoint", [this](Call& call) { QueueStates(PointOf(call)); });
  add(kEventsSpace, "GetServiceCapabilities", [](Call& call) {
    call.answer.Add("tev:Capabilities")
        .Attribute("WSPullPointSupport", "true")
        .Attribute("MaxPullPoints", "10");
  });
  add(kNotificationSpace, "Renew", [this](Call& call) { Renew(call); });
  add(kNotificationSpace, "Unsubscribe", [this](Call& call) { Unsubscribe(call); });
}

void EventService::Tell(const Happening& happening) {
  crossings_ += happening.hasState ? 0 : 1;
  for (PullPoint& point : points_) {
    Queue(point, happening, happening.hasState ? "Changed" : nullptr);
    AnswerPull(point, false);
  }
}

void EventService::Queue(PullPoint& point, const Happening& happening, const char* operation) {
  if (point.waiting.size() == kMostWaiting) {
    point.waiting.pop_front();
  }
  point.waiting.push_back(
      {happening, operation, state_.clock.Now() * kSecond + g_get_real_time() % kSecond});
}

void EventService::QueueStates(PullPoint& point) {
  for (const Happening& each : happenings_.All()) {
    if (each.hasState) {
      Queue(point, each, "Initialized");
    }
  }
}

EventService::PullPoints::iterator EventService::Find(const std::string& path) {
  return std::ranges::find(points_, path, &PullPoint::path);
}

EventService::PullPoint& EventService::PointOf(const Call& call) {
  const auto found = Find(call.path);
  if (found == points_.end()) {
    NoSubscription();
  }
  return *found;
}

// Of a duration or a time of the camera's clock.
std::int64_t EventService::EndOf(const Call& call, const char* element) const {
  constexpr int kUsualLifetime = 60;
  const std::string text = TextAt(call.request, element).value_or("");
  int seconds = text.empty() ? kUsualLifetime : DurationSeconds(text);
  if (seconds < 0) {
    const auto time = ParseDateTime(text);
    if (!time || *time <= state_.clock.Now()) {
      throw SoapFault{"wsnt:UnacceptableTerminationTimeFault", "", "Not a time to end: " + text};
    }
    seconds =
        static_cast<int>(std::min<std::int64_t>(*time - state_.clock.Now(), kLongestLifetime));
  }
  return g_get_monotonic_time() + std::clamp(seconds, 1, kLongestLifetime) * kSecond;
}

void EventService::WriteTimes(Element answer, const char* current, const char* end,
                              const PullPoint& point) {
  const std::int64_t now = state_.clock.Now() * kSecond;
  answer.Add(current, TimeText(now));
  answer.Add(end, TimeText(now + point.end - g_get_monotonic_time()));
}

void EventService::Create(Call& call) {
  if (std::cmp_greater_equal(points_.size(), state_.onvif.maxSubscriptions)) {
    throw SoapFault{"wsnt:SubscribeCreationFailedFault", "", "The camera holds no more pull points",
                    true};
  }
  PullPoint point;
  const std::string name = "events/" + std::to_string(++lastNumber_);
  point.path = "/onvif/" + name;
  point.end = EndOf(call, "InitialTerminationTime");
  QueueStates(point);
  points_.push_back(std::move(point));
  // Behind a router a camera knows but its own address.
  const std::string place = state_.onvif.style.addresses ? "http://192.0.2.77/onvif/" : call.onvif;
  call.answer.Add("tev:SubscriptionReference").Add("wsa5:Address", place + name);
  WriteTimes(call.answer, "wsnt:CurrentTime", "wsnt:TerminationTime", points_.back());
  Arm();
}

void EventService::Pull(Call& call) {
  PullPoint& point = PointOf(call);
  const int seconds = DurationSeconds(TextAt(call.request, "Timeout").value_or(""));
  int limit = 0;
  ReadNumber(call.request, "MessageLimit", 1, 1'000'000, &limit);
  if (seconds < 0 || limit == 0) {
    InvalidValue("Timeout or MessageLimit");
  }
  if (seconds > state_.onvif.longestPull || limit > kMostMessages) {
    throw SoapFault{"ter:InvalidArgVal", "", "The camera waits less or tells less at once", false,
                    [this](Element detail) {
                      Element limits = detail.Add("tev:PullMessagesFaultResponse");
                      limits.Add("tev:MaxTimeout",
                                 "PT" + std::to_string(state_.onvif.longestPull) + "S");
                      limits.Add("tev:MaxMessageLimit", kMostMessages);
                    }};
  }
  ++pulls_;
  AnswerPull(point, false);  // an earlier one has waited long enough
  point.limit = limit;
  point.pullEnd = g_get_monotonic_time() + seconds * kSecond;
  if (point.waiting.empty() && seconds > 0) {
    call.later = true;
  } else {
    WriteMessages(call.answer, point);
  }
}

void EventService::Hold(SoupServerMessage* message, const std::string& path) {
  const auto point = Find(path);
  point->pull.reset(SOUP_SERVER_MESSAGE(g_object_ref(message)));
  point->gone =
      g_signal_connect(message, "finished", G_CALLBACK(+[](SoupServerMessage* gone, gpointer self) {
                         for (PullPoint& each : static_cast<EventService*>(self)->points_) {
                           if (each.pull.get() == gone) {
                             g_signal_handler_disconnect(gone, each.gone);
                             each.pull.reset();
                             return;
                           }
                         }
                       }),
                       this);
  Arm();
}

void EventService::WriteMessages(Element answer, PullPoint& point) {
  WriteTimes(answer, "tev:CurrentTime", "tev:TerminationTime", point);
  for (int i = 0; i < point.limit && !point.waiting.empty(); ++i) {
    const Notice& notice = point.waiting.front();
    const Happening& happening = notice.happening;
    Element outer = answer.Add("wsnt:NotificationMessage");
    outer.Add("wsnt:Topic", happening.topic)
        .Attribute("Dialect", "http://www.onvif.org/ver10/tev/topicExpression/ConcreteSet");
    Element message = outer.Add("wsnt:Message").Add("tt:Message");
    message.Attribute("UtcTime", TimeText(notice.time));
    if (notice.operation != nullptr) {
      message.Attribute("PropertyOperation", notice.operation);
    }
    message.Add("tt:Source")
        .Add("tt:SimpleItem")
        .Attribute("Name", happening.sourceName)
        .Attribute("Value", happening.source);
    message.Add("tt:Data")
        .Add("tt:SimpleItem")
        .Attribute("Name", happening.dataName)
        .Attribute("Value", !happening.hasState ? std::to_string(crossings_)
                            : happening.on      ? "true"
                                                : "false");
    point.waiting.pop_front();
  }
}

// Answers the pull that waits, if one does.
void EventService::AnswerPull(PullPoint& point, bool broken) {
  if (point.pull == nullptr) {
    return;
  }
  g_signal_handler_disconnect(point.pull.get(), point.gone);
  const ObjectPtr<SoupServerMessage> message = std::move(point.pull);
  std::string bytes;
  if (!broken) {
    SoapAnswer soap(state_.onvif.style);
    WriteMessages(soap.Body().Add("tev:PullMessagesResponse"), point);
    bytes = soap.Bytes();
  }
  send_(message.get(), bytes);
}

void EventService::Renew(Call& call) {
  PullPoint& point = PointOf(call);
  point.end = EndOf(call, "TerminationTime");
  WriteTimes(call.answer, "wsnt:CurrentTime", "wsnt:TerminationTime", point);
  Arm();
}

void EventService::Unsubscribe(Call& call) {
  PullPoint& point = PointOf(call);
  AnswerPull(point, false);
  points_.erase(Find(call.path));
  ++unsubscribed_;
}

// Ends what is over and answers who has waited long enough.
void EventService::Look() {
  const std::int64_t now = g_get_monotonic_time();
  for (auto point = points_.begin(); point != points_.end();) {
    const bool over = point->end <= now;
    if (over || point->pullEnd <= now) {
      AnswerPull(*point, false);
    }
    expired_ += over ? 1 : 0;
    point = over ? points_.erase(point) : std::next(point);
  }
  Arm();
}

void EventService::Arm() {
  std::int64_t next = -1;
  for (const PullPoint& point : points_) {
    const std::int64_t due = point.pull != nullptr ? std::min(point.end, point.pullEnd) : point.end;
    next = next < 0 ? due : std::min(next, due);
  }
  timer_.SetAt(next);
}

std::string EventService::State() const {
  nlohmann::ordered_json motions = nlohmann::ordered_json::array();
  for (const Happenings::Span& each : happenings_.Motions()) {
    motions.push_back({{"from_ms", each.from / 1000}, {"to_ms", each.to / 1000}});
  }
  return nlohmann::ordered_json{{"subscriptions", points_.size()}, {"made", lastNumber_},
                                {"unsubscribed", unsubscribed_},   {"expired", expired_},
                                {"forgotten", forgotten_},         {"pulls", pulls_},
                                {"line_crossings", crossings_},    {"motions", motions}}
             .dump() +
         "\n";
}

std::optional<std::string> EventService::Control(const std::string& what,
                                                 const std::string& query) {
  if (what == "state") {
    return State();
  }
  if (what == "forget") {
    forgotten_ += static_cast<unsigned>(points_.size());
    for (PullPoint& point : points_) {
      AnswerPull(point, true);
    }
    points_.clear();
    return State();
  }
  if (what == "break") {
    for (PullPoint& point : points_) {
      AnswerPull(point, true);
    }
    return State();
  }
  return happenings_.Set(what, query != "on=0") ? std::optional(State()) : std::nullopt;
}

}  // namespace testcamera
