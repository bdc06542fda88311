// Receivers of many RTSP streams in one process, side by side: ours, as a library and as the
// recorder's service, GStreamer's, and a bare loop.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <string>

namespace bench {

struct ReceiveJob {
  // "ours", "service", "gstreamer", "bare", or "write": the bare loop that writes too
  std::string receiver;
  int streams = 32;
  bool h265 = false;  // else H.264
  bool tcp = false;
  int port = 0;
  int seconds = 10;
  std::string
      recordTo;  // an existing folder for what all but the bare loops record; empty: nothing
};

// Since the opening, of all streams together.
struct ReceiveTotals {
  std::uint64_t frames = 0;  // recorded ones of ours, if it records; 0 for the bare loop over TCP,
                             // which does not look for them
  std::uint64_t fewestFrames = 0;  // of the stream that got fewest
  std::uint64_t bytes = 0;
  std::uint64_t lostPackets = 0;
  int delivering = 0;  // streams that delivered anything
};

class Receiver {
 public:
  virtual ~Receiver() = default;
  virtual bool Open() = 0;
  virtual ReceiveTotals Totals() = 0;
  virtual pid_t Process() { return 0; }  // that receives; 0: this one
};

std::unique_ptr<Receiver> MakeOwnReceiver(const ReceiveJob& job);
std::unique_ptr<Receiver> MakeServiceReceiver(const ReceiveJob& job);  // it always records
std::unique_ptr<Receiver> MakeGStreamerReceiver(const ReceiveJob& job);
std::unique_ptr<Receiver> MakeBareReceiver(const ReceiveJob& job);

// Opens the job's receiver in this process, lets it settle for two seconds, and writes a line about
// the next `seconds`: what it took from the process and what came, as NAME=NUMBER words.
int RunReceiver(const ReceiveJob& job);

}  // namespace bench
