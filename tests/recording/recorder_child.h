// A process of its own that records, for tests that kill it or run several.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

namespace test {

struct RecorderJob {
  std::string data;          // records into <data>/recordings/<folder of the site>
  std::vector<int> sites;    // odd ones into the folder "day1", even ones into "day2"
  unsigned channel = 0;      // tells the frames of several processes apart
  std::uint32_t frames = 0;  // of each site; 0: until it is killed
  int pipe = -1;             // told behind each flush: how many frames of each site are written
};

// Files of 1 MiB, frames of some 20,000 bytes, a flush every 10 ms.
pid_t StartRecorder(const RecorderJob& job);

}  // namespace test
