#include "cms/ipcam/internal/event_subscription.h"

#include <algorithm>
#include <utility>

#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

// A subscription that is left behind, by a program that was killed, ends after so long by itself.
constexpr int kLifetimeSeconds = 60;
constexpr int kPullSeconds = 20;
constexpr int kMostMessages = 100;
constexpr int kAnswerMs = 10'000;   // for every answer, behind the wait that was asked for
constexpr int kFarewellMs = 3'000;  // for the last request
constexpr std::uint64_t kEmptyPauseMs =
    1'000;  // for cameras that answer at once though they are to wait
constexpr std::uint64_t kFirstPauseMs = 100;  // a connection that broke off may just be made anew
constexpr std::uint64_t kShortestPauseMs = 1'000;
constexpr std::uint64_t kLongestPauseMs = 30'000;
constexpr std::uint64_t kRefusedPauseMs = 600'000;

std::uint64_t TickIn(int seconds) {
  return TickMilliseconds() + static_cast<std::uint64_t>(seconds) * 1000;
}

}  // namespace

EventSubscription::EventSubscription(const OnvifAccess& access, OnvifEvents::OnEvent onEvent,
                                     OnvifEvents::OnStatus onStatus)
    : device_(access),
      onEvent_(std::move(onEvent)),
      onStatus_(std::move(onStatus)),
      due_(TickMilliseconds()),
      limits_{kPullSeconds, kMostMessages} {}

const char* EventSubscription::NameOf(Step step) {
  switch (step) {
    case Step::kClock:
      return "GetSystemDateAndTime";
    case Step::kServices:
      return "GetServices";
    case Step::kCapabilities:
      return "GetCapabilities";
    case Step::kCreate:
      return "CreatePullPointSubscription";
    case Step::kSynchronize:
      return "SetSynchronizationPoint";
    case Step::kPull:
      return "PullMessages";
    case Step::kRenew:
      return "Renew";
    case Step::kDrop:
    case Step::kEnd:
    case Step::kOver:
      break;
  }
  return "Unsubscribe";
}

SoapRequestText EventSubscription::Request(const EventRequest& request, const std::wstring& address,
                                           const std::wstring& reference) const {
  return device_.Signed(address, request.action, request.body,
                        AddressingHeaders(request.action, address, reference));
}

SoapRequestText EventSubscription::NextRequest() {
  sent_ = TickMilliseconds();
  SoapRequestText text;
  const auto toPoint = [this](const EventRequest& request) {
    return Request(request, point_.address, point_.reference);
  };
  int wait = 0;
  switch (step_) {
    case Step::kClock:
      text = device_.ClockRequest();
      break;
    case Step::kServices:
      text = device_.ServicesRequest();
      break;
    case Step::kCapabilities:
      text = device_.CapabilitiesRequest();
      break;
    case Step::kCreate:
      text = Request(CreatePullPointRequest(kLifetimeSeconds), device_.ServiceAddress(kEventsWsdl),
                     {});
      break;
    case Step::kSynchronize:
      text = toPoint(SynchronizationRequest());
      break;
    case Step::kPull:
      wait = std::clamp(static_cast<int>((ends_ - std::min(ends_, sent_)) / 2000), 1,
                        limits_.waitSeconds);
      text = toPoint(PullMessagesRequest(wait, limits_.mostMessages));
      break;
    case Step::kRenew:
      text = toPoint(RenewalRequest(kLifetimeSeconds));
      break;
    case Step::kDrop:
    case Step::kEnd:
    case Step::kOver:
      text = toPoint(UnsubscriptionRequest());
      break;
  }
  text.timeoutMs = step_ == Step::kEnd ? kFarewellMs : kAnswerMs + wait * 1000;
  return text;
}

void EventSubscription::Go(Step step) {
  step_ = step;
  due_ = TickMilliseconds();
}

void EventSubscription::TakeReply(const SoapReply& reply) {
  if (stopping_ && step_ == Step::kCreate) {
    point_ = ParsePullPoint(reply.text).value_or(PullPoint{});
    return Go(point_.address.empty() ? Step::kOver : Step::kEnd);
  }
  switch (step_) {
    case Step::kClock:
      return TakeClock(reply);
    case Step::kServices:
    case Step::kCapabilities:
      return TakeServices(reply);
    case Step::kCreate:
      return TakePullPoint(reply);
    case Step::kSynchronize:  // cameras may know no such operation: the pull shows what is left
      if (reply.error.empty()) {
        states_.Ask(TickMilliseconds());
      }
      return reply.answered ? Go(Step::kPull) : Fail(reply, Step::kClock);
    case Step::kPull:
      return TakeEvents(reply);
    case Step::kRenew:
      renewable_ = reply.error.empty() || !reply.answered;
      if (reply.error.empty()) {
        ends_ = TickIn(LifetimeOf(reply.text).value_or(kLifetimeSeconds));
      }
      return reply.answered ? Go(Step::kPull) : Fail(reply, Step::kClock);
    case Step::kDrop:
      point_ = {};
      return Go(Step::kCreate);
    case Step::kEnd:
    case Step::kOver:
      return Go(Step::kOver);
  }
}

void EventSubscription::TakeClock(const SoapReply& reply) {
  if (!reply.answered) {
    return Fail(reply, Step::kClock);
  }
  device_.TakeClock(reply);
  clockFresh_ = true;
  // An answer may have been lost on its way with what it told: the subscription goes on if the
  // camera still has it, and tells all states again.
  Go(point_.address.empty() || IsLifetimeOver() ? Step::kServices : Step::kSynchronize);
}

void EventSubscription::TakeServices(const SoapReply& reply) {
  if (reply.answered && device_.TakeServices(reply) &&
      !device_.ServiceAddress(kEventsWsdl).empty()) {
    return Go(Step::kCreate);
  }
  if (!reply.answered) {
    return Fail(reply, Step::kClock);
  }
  if (reply.unauthorized) {
    return Refuse(reply);
  }
  if (step_ == Step::kServices) {
    return Go(Step::kCapabilities);
  }
  SoapReply none = reply;
  none.error = reply.error.empty() ? "the camera offers no events" : reply.error;
  Fail(none, Step::kClock);
}

void EventSubscription::TakePullPoint(const SoapReply& reply) {
  const std::optional<PullPoint> point =
      reply.error.empty() ? ParsePullPoint(reply.text) : std::nullopt;
  if (!point) {
    if (reply.unauthorized) {
      return Refuse(reply);
    }
    SoapReply failed = reply;
    failed.error = reply.error.empty() ? "the answer names no pull point" : reply.error;
    return Fail(failed, Step::kClock);
  }
  point_ = *point;
  ends_ = TickIn(point_.lifetimeSeconds);
  pulled_ = false;
  renewable_ = true;
  states_.Ask(TickMilliseconds());
  OnvifEventStatus made;
  made.subscribed = true;
  made.subscriptions = status_.subscriptions + 1;
  Tell(made);
  Go(Step::kPull);
}

void EventSubscription::TakeEvents(const SoapReply& reply) {
  const std::int64_t now = WallMicroseconds() / 1000;
  auto events = reply.error.empty() ? ParsePulledEvents(reply.text, now) : std::nullopt;
  if (!events) {
    return TakePullFault(reply);
  }
  failures_ = 0;
  pulled_ = true;
  clockFresh_ = false;
  if (!status_.subscribed) {
    OnvifEventStatus again;
    again.subscribed = true;
    again.subscriptions = status_.subscriptions;
    Tell(again);
  }
  if (const auto lifetime = LifetimeOf(reply.text)) {
    ends_ = TickIn(*lifetime);
  }
  for (PulledEvent& pulled : *events) {
    if (states_.Note(pulled) && onEvent_) {
      onEvent_(pulled.event);
    }
  }
  TellDoubtful();
  Go(IsRenewalDue() ? Step::kRenew : Step::kPull);
  if (events->empty() && TickMilliseconds() - sent_ < kEmptyPauseMs) {
    due_ += kEmptyPauseMs;
  }
}

void EventSubscription::TellDoubtful() {
  for (const CameraEvent& event :
       states_.TakeDoubtful(TickMilliseconds(), WallMicroseconds() / 1000)) {
    if (onEvent_) {
      onEvent_(event);
    }
  }
}

void EventSubscription::TakePullFault(const SoapReply& reply) {
  if (!reply.answered) {
    return Fail(reply, Step::kClock);
  }
  const std::optional<PullLimits> limits = ParsePullLimits(reply.text);
  if (limits && (limits->waitSeconds != limits_.waitSeconds ||
                 limits->mostMessages != limits_.mostMessages)) {
    limits_ = {std::min(limits->waitSeconds, kPullSeconds),
               std::min(limits->mostMessages, kMostMessages)};
    return Go(Step::kPull);
  }
  if (reply.unauthorized) {
    return Refuse(reply);
  }
  if (!pulled_) {  // a new one that is not known: the camera is not well
    return Fail(reply, Step::kDrop);
  }
  Go(Step::kDrop);
}

void EventSubscription::Fail(const SoapReply& reply, Step step) {
  Tell({.subscribed = false,
        .subscriptions = status_.subscriptions,
        .refused = false,
        .error = device_.Named(std::string(NameOf(step_)) + ": " + reply.error)});
  const std::uint64_t pause =
      failures_ == 0 ? kFirstPauseMs
                     : std::min(kShortestPauseMs << std::min(failures_ - 1, 5u), kLongestPauseMs);
  ++failures_;
  Go(step);
  due_ += pause;
}

// The camera's clock may have been set since it was asked; otherwise the user is refused.
void EventSubscription::Refuse(const SoapReply& reply) {
  Tell({.subscribed = false,
        .subscriptions = status_.subscriptions,
        .refused = clockFresh_,
        .error = device_.Named(std::string(NameOf(step_)) + ": " + reply.error)});
  Go(Step::kClock);
  due_ += clockFresh_ ? kRefusedPauseMs : 0;
}

void EventSubscription::Tell(const OnvifEventStatus& status) {
  const bool changed = status.subscribed != status_.subscribed ||
                       status.subscriptions != status_.subscriptions ||
                       status.refused != status_.refused || status.error != status_.error;
  status_ = status;
  if (changed) {
    Log(status.subscribed ? LogLevel::kInfo
        : status.refused  ? LogLevel::kError
                          : LogLevel::kWarning,
        "events", status.subscribed ? device_.Named("subscribed to its events") : status.error);
  }
  if (changed && onStatus_) {
    onStatus_(status_);
  }
}

bool EventSubscription::Stop(bool asking) {
  onEvent_ = {};
  onStatus_ = {};
  stopping_ = true;
  if ((step_ == Step::kCreate || step_ == Step::kEnd) && asking) {
    return false;
  }
  if (step_ != Step::kEnd) {
    Go(point_.address.empty() || IsLifetimeOver() ? Step::kOver : Step::kEnd);
  }
  return true;
}

bool EventSubscription::IsLifetimeOver() const {
  return ends_ <= TickMilliseconds();
}

// In time for another wait.
bool EventSubscription::IsRenewalDue() const {
  return renewable_ && ends_ <= TickIn(limits_.waitSeconds + kAnswerMs / 1000);
}

}  // namespace cms
