// The demultiplexer delivers the same packets and messages, and counts the same losses, however the
// stream is cut into segments. The first byte chooses the cuts, whether channels are set up, and
// whether a description is expected.
#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "cms/streaming/internal/rtsp_demultiplexer.h"
#include "fuzz/support/check.h"

namespace {

class Recorder : public cms::RTSPDemultiplexer::Sink {
 public:
  void OnInterleavedPacket(int type, std::span<const std::uint8_t> frame) override {
    CHECK(type >= 0 && type < 6 && frame.size() >= 4 && frame[0] == '$');
    CHECK(frame.size() == 4u + (static_cast<std::size_t>(frame[2]) << 8) + frame[3]);
    events.emplace_back(frame.begin(), frame.end());
  }
  void OnMessage(std::string_view message) override { events.emplace_back(message); }
  void OnUnendedMessage(std::string_view message, bool grown) override {
    if (grown) {
      CHECK(!events.empty() && message.size() > events.back().size() &&
            message.starts_with(events.back()));
      events.pop_back();
    }
    events.emplace_back(message);
  }

  std::vector<std::string> events;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::span<const std::uint8_t> stream(data + 1, size - 1);
  const cms::RTSPStreamChannels ids =
      data[0] & 1 ? cms::RTSPStreamChannels{0, 1, 2, 3, -1, 7} : cms::kNoChannels;

  static Recorder wholeEvents;
  static Recorder cutEvents;
  static cms::RTSPDemultiplexer whole(wholeEvents);
  static cms::RTSPDemultiplexer cut(cutEvents);
  for (auto* demultiplexer : {&whole, &cut}) {
    demultiplexer->Reset();
    demultiplexer->SetChannels(ids);
    demultiplexer->ExpectDescription((data[0] & 4) != 0);
  }
  wholeEvents.events.clear();
  cutEvents.events.clear();

  whole.Add(stream);
  std::minstd_rand random(data[0]);
  for (std::size_t at = 0; at < stream.size();) {
    const std::size_t sizeOfSegment = 1 + random() % (data[0] & 2 ? 8 : 400);
    const auto segment = stream.subspan(at, std::min(sizeOfSegment, stream.size() - at));
    cut.Add(std::vector<std::uint8_t>(segment.begin(), segment.end()));
    at += segment.size();
  }
  CHECK(wholeEvents.events == cutEvents.events);
  CHECK(whole.SkippedBytes() == cut.SkippedBytes());
  CHECK(whole.OversizeMessages() == cut.OversizeMessages());
  // Counters go on over the runs.
  CHECK(whole.StrayFrames() == cut.StrayFrames());
  return 0;
}
