// What has begun or ended between two looks at a recorder's figures.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/service/hook_event.h"
#include "tools/service/recorder_figures.h"

namespace tools {

// One thread at a time; about once a second, so that nothing that lasts is missed. What is already
// so at the first look has begun then. Events of disks also go to the log, where the library tells
// of sites and their recordings itself.
class FigureEvents {
 public:
  static constexpr std::int64_t kLostSeconds = 5;         // without a stream: a site is lost
  static constexpr std::int64_t kLowSeconds = 24 * 3600;  // a disk that is full then is low

  std::vector<HookEvent> Look(const RecorderFigures& figures);

 private:
  struct Span {
    bool on = false;
    std::int64_t since = 0;
    std::string cause;  // as it began
  };
  struct Site {
    std::int64_t notPlayingSince = 0;  // 0: it plays
    Span lost;
    Span gap;
    Span event;
  };
  struct Disk {
    Span low;
    Span trouble;  // full or failed
    Span behind;
  };

  std::map<unsigned, Site> sites_;
  std::map<std::string, Disk> disks_;
};

}  // namespace tools
