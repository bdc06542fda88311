// EventSubscription: the conversation with one camera about its events.
#pragma once

#include <cstdint>
#include <string>

#include "cms/ipcam/internal/event_messages.h"
#include "cms/ipcam/internal/event_states.h"
#include "cms/ipcam/internal/onvif_device.h"
#include "cms/ipcam/onvif_events.h"

namespace cms {

// Says what to ask next and when, and takes the answers; the asking is another's. Requests follow
// each other: the next one is taken when the last one was answered. One thread uses it.
class EventSubscription {
 public:
  EventSubscription(const OnvifAccess& access, OnvifEvents::OnEvent onEvent,
                    OnvifEvents::OnStatus onStatus);

  // When the next request is due, as a tick; not asked while one is on its way.
  std::uint64_t DueAt() const { return due_; }
  SoapRequestText NextRequest();
  // Tells what it holds by the callbacks.
  void TakeReply(const SoapReply& reply);

  // No callback is called any more, and the next request takes the subscription back. False when
  // the one that is on its way, if `asking`, is to be answered first, as it makes one or takes it
  // back.
  bool Stop(bool asking);
  bool IsOver() const { return step_ == Step::kOver; }

 private:
  enum class Step {
    kClock,
    kServices,
    kCapabilities,
    kCreate,
    kSynchronize,  // asks for all states, as an answer may have been lost
    kPull,
    kRenew,
    kDrop,  // takes a subscription back that does not answer as it should, to make another one
    kEnd,   // the last one
    kOver,
  };

  void Go(Step step);
  void TakeClock(const SoapReply& reply);
  void TakeServices(const SoapReply& reply);
  void TakePullPoint(const SoapReply& reply);
  void TakeEvents(const SoapReply& reply);
  void TakePullFault(const SoapReply& reply);
  void TellDoubtful();
  // Once more after a pause that grows with every failure, from `step` on.
  void Fail(const SoapReply& reply, Step step);
  void Refuse(const SoapReply& reply);
  void Tell(const OnvifEventStatus& status);
  bool IsLifetimeOver() const;
  bool IsRenewalDue() const;
  SoapRequestText Request(const EventRequest& request, const std::wstring& address,
                          const std::wstring& reference) const;
  static const char* NameOf(Step step);

  OnvifDevice device_;
  OnvifEvents::OnEvent onEvent_;
  OnvifEvents::OnStatus onStatus_;
  OnvifEventStatus status_;
  EventStates states_;
  Step step_ = Step::kClock;
  std::uint64_t due_ = 0;
  std::uint64_t sent_ = 0;   // when the request on its way was made
  unsigned failures_ = 0;    // one after the other
  bool clockFresh_ = false;  // asked for since the last events came
  bool stopping_ = false;
  PullPoint point_;         // without an address: none
  std::uint64_t ends_ = 0;  // the subscription's end, as a tick
  bool pulled_ = false;     // it has answered once
  bool renewable_ = true;   // the camera takes Renew
  PullLimits limits_;
};

}  // namespace cms
