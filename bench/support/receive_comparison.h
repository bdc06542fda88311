// The comparison of receivers as a program: this one, its server and each receiver in processes of
// their own, a benchmark for each case.
#pragma once

#include <string>
#include <vector>

namespace bench {

// The server and each receiver are processes of their own (the program in another role), so that
// what is measured is a receiver's alone: user and system time of its process in milliseconds for
// each second of each stream, two seconds after all streams run, for --seconds=N (10; even, so that
// whole GOPs of two seconds are counted and every receiver gets the same bytes).
//
//   frames     delivered (or recorded) of a stream a second, the camera sends 25; fewest: of the
//              slowest one
//   lost       packets missing since the opening; a run with any says so
//   waits      times a second that one of the process's threads gave the processor up
//
// Run with --benchmark_repetitions=3; the table at the end compares medians.
struct ReceiverComparison {
  struct Case {
    std::string receiver;  // as in ReceiveJob
    int streams = 32;
    bool h265 = false;  // else H.264
  };
  std::vector<Case> cases;  // each over UDP, then over TCP
  int bitrate = 4'000'000;  // of the 1080p stream
  // What is received is written to files below the working folder.
  bool records = false;
};

// The program's main function.
int CompareReceivers(int argc, char** argv, const ReceiverComparison& comparison);

}  // namespace bench
