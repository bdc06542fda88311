// The camera's event service: pull points and what waits in them (ONVIF Core, "Event handling").
#pragma once

#include <libsoup/soup.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <list>
#include <string>

#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/onvif/happenings.h"
#include "tools/testcamera/onvif/operations.h"

namespace testcamera {

// On the thread that runs the context.
class EventService {
 public:
  // Sends the answer to a message that had to wait; an empty one breaks its connection off.
  using Send = std::function<void(SoupServerMessage*, const std::string&)>;

  EventService(CameraState& state, GMainContext* context, Send send);
  ~EventService();
  EventService(const EventService&) = delete;
  EventService& operator=(const EventService&) = delete;

  void AddOperations(Operations* operations);

  // Behind an operation that said so (Call::later): the answer comes when there is something to
  // tell, or when the time is over.
  void Hold(SoupServerMessage* message, const std::string& path);

  // What tests ask of the camera, at /control/WHAT: what happens ("motion?on=1"), "forget" all
  // subscriptions, "break" the connections of those that wait, "state": counts as JSON. Nothing for
  // anything else.
  std::optional<std::string> Control(const std::string& what, const std::string& query);

 private:
  struct Notice {
    Happening happening;
    const char* operation;  // nullptr: no property
    std::int64_t time = 0;  // by the camera's clock, in microseconds
  };
  struct PullPoint {
    std::string path;      // "/onvif/events/7"
    std::int64_t end = 0;  // monotonic time
    std::deque<Notice> waiting;
    ObjectPtr<SoupServerMessage> pull;  // one that waits for an answer
    gulong gone = 0;                    // its signal
    int limit = 0;                      // messages that it takes
    std::int64_t pullEnd = 0;
  };
  using PullPoints = std::list<PullPoint>;

  void Tell(const Happening& happening);
  void Queue(PullPoint& point, const Happening& happening, const char* operation);
  void QueueStates(PullPoint& point);
  PullPoints::iterator Find(const std::string& path);
  PullPoint& PointOf(const Call& call);
  void Create(Call& call);
  void Pull(Call& call);
  void Renew(Call& call);
  void Unsubscribe(Call& call);
  void WriteTimes(Element answer, const char* current, const char* end, const PullPoint& point);
  void WriteMessages(Element answer, PullPoint& point);
  void AnswerPull(PullPoint& point, bool broken);
  void Forget(PullPoint& point);
  std::int64_t EndOf(const Call& call, const char* element) const;
  void Look();
  void Arm();
  std::string State() const;

  CameraState& state_;
  const Send send_;
  PullPoints points_;
  Happenings happenings_;
  ReadyTimer timer_;
  unsigned lastNumber_ = 0;
  unsigned unsubscribed_ = 0;
  unsigned expired_ = 0;
  unsigned forgotten_ = 0;
  unsigned pulls_ = 0;
  unsigned crossings_ = 0;
};

}  // namespace testcamera
