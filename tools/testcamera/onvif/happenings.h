// What happens in front of the camera, by its script and by what it is told to see.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tools/testcamera/onvif/onvif_options.h"
#include "tools/testcamera/onvif/ready_timer.h"

namespace testcamera {

// One thing that is seen: a state, or a moment when it has none.
struct Happening {
  const char* word;   // by which it is asked for
  const char* topic;  // such as "tns1:VideoSource/MotionAlarm"
  const char* sourceName;
  const char* source;
  const char* dataName;
  bool hasState;
  bool on = false;
};

// On the thread of the context.
class Happenings {
 public:
  // Tells each change.
  Happenings(const OnvifOptions& options, GMainContext* context,
             std::function<void(const Happening&)> tell);

  // False for a word that is none.
  bool Set(const std::string& word, bool on);
  const std::vector<Happening>& All() const { return all_; }

  // When the script's motions began and ended: microseconds since 1970; 0 while one lasts.
  struct Span {
    std::int64_t from = 0;
    std::int64_t to = 0;
  };
  const std::vector<Span>& Motions() const { return motions_; }

 private:
  // Its next change stands in `at`, by the monotonic clock.
  struct Script {
    const char* word;
    std::int64_t every = 0;  // microseconds; 0: never
    std::int64_t length = 0;
    std::int64_t at = 0;
    bool on = false;
  };

  void Play();
  void Arm();

  const std::function<void(const Happening&)> tell_;
  std::vector<Happening> all_;
  std::vector<Script> scripts_;
  std::vector<Span> motions_;
  ReadyTimer timer_;
};

}  // namespace testcamera
