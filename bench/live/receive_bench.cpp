// Many streams of 1080p H.264, and of H.265, at 4 Mbit/s received in one process without decoding:
// ours beside as many `rtspsrc ! rtph264depay ! fakesink` branches and a bare receive loop, over
// UDP and over TCP. bench/support/receive_comparison.h says what is measured.
#include "bench/support/receive_comparison.h"

int main(int argc, char** argv) {
  bench::ReceiverComparison comparison;
  comparison.cases = {{"ours", 32}, {"ours", 32, true}, {"gstreamer", 32}, {"gstreamer", 32, true},
                      {"bare", 32}, {"bare", 32, true}, {"write", 32},     {"ours", 128}};
  return bench::CompareReceivers(argc, argv, comparison);
}
