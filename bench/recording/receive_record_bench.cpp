// 32 cameras of 1080p H.264 at 4 Mbit/s (with --half: 64 at 2 Mbit/s) received and recorded in one
// process: ours, as a library and as the recorder's service with limits, a page, hooks and a
// question for its figures every five seconds, beside as many `rtspsrc ! rtph264depay ! h264parse !
// matroskamux ! filesink` branches and a bare loop that writes too, over UDP and over TCP. The
// files go below the working folder. bench/support/receive_comparison.h says what is measured. Aim:
// at most 0.4 of GStreamer's time, and no frame lost.
#include <cstdlib>
#include <string_view>

#include "bench/support/receive_comparison.h"

int main(int argc, char** argv) {
  constexpr char kHalf[] = "RECEIVE_RECORD_HALF";  // tells the program's other roles
  if (argc > 1 && std::string_view(argv[1]) == "--half") {
    setenv(kHalf, "1", 1);
    argv[1] = argv[0];
    --argc;
    ++argv;
  }
  const bool half = std::getenv(kHalf) != nullptr;
  bench::ReceiverComparison comparison;
  comparison.bitrate = half ? 2'000'000 : 4'000'000;
  comparison.records = true;
  for (const char* const receiver : {"ours", "service", "gstreamer", "write"}) {
    comparison.cases.push_back({receiver, half ? 64 : 32});
  }
  return bench::CompareReceivers(argc, argv, comparison);
}
