// EventStates: which of the pulled events say something new.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cms/ipcam/internal/event_messages.h"

namespace cms {

// One thread at a time uses it.
class EventStates {
 public:
  // A new subscription, or one that is asked to tell all states again: those that were on are
  // doubtful until they are told.
  void Ask(std::uint64_t nowTick);

  // Whether the event is news; it gets its `initial`. A state is news when it is another one than
  // before, or the first; what has no state is always news, but for the camera's answers to Ask.
  bool Note(PulledEvent& pulled);

  // States that were on when the camera was asked, half a minute ago, and were not told since: they
  // are off now, as these events say. `nowMs` is their time.
  std::vector<CameraEvent> TakeDoubtful(std::uint64_t nowTick, std::int64_t nowMs);

 private:
  struct State {
    CameraEvent last;
    bool doubtful = false;
  };

  std::map<std::string, State> states_;  // by topic, source and key
  std::uint64_t asked_ = 0;              // tick; 0: nothing is doubtful
};

}  // namespace cms
