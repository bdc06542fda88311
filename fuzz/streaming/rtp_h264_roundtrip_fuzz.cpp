// Any NAL units, packetized as RFC 6184 has it, come back byte for byte. (A fragmented unit ends a
// frame, so a picture may come back in several.)
#include <cstdlib>

#include "cms/streaming/h264_rtp_processer.h"
#include "fuzz/streaming/rtp_input.h"
#include "tests/support/rtp_packetizer.h"

namespace {

using Frames = std::vector<std::vector<std::uint8_t>>;

void Collect(void* context, void* frame, int length) {
  const auto* bytes = static_cast<const std::uint8_t*>(frame);
  static_cast<Frames*>(context)->emplace_back(bytes, bytes + length);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::uint8_t switches = fuzz::TakeByte(input);
  const std::size_t maxPayload = 16 + fuzz::TakeByte(input);
  const bool aggregate = (switches & 1) != 0;
  const bool delimiters = (switches & 2) != 0;

  std::vector<std::vector<std::uint8_t>> units = {std::vector<std::uint8_t>(9, 0x67)};
  while (!input.empty() && units.size() < 64) {
    auto unit = fuzz::TakeBlock(input);
    if (unit.empty()) {
      continue;
    }
    constexpr std::uint8_t kTypes[] = {1, 5, 6, 7, 8, 9, 12};
    unit[0] = static_cast<std::uint8_t>((unit[0] & 0xE0) |
                                        kTypes[(unit[0] & 0x1F) % (delimiters ? 7 : 5)]);
    units.push_back(std::move(unit));
  }
  units.emplace_back(30, 0x41);

  Frames expected(1);
  for (const auto& unit : units) {
    const unsigned type = unit[0] & 0x1Fu;
    if (type != 9 && type != 12) {
      expected.back().insert(expected.back().end(), {0, 0, 0, 1});
      expected.back().insert(expected.back().end(), unit.begin(), unit.end());
      if (unit.size() > maxPayload) {
        expected.emplace_back();
      }
    }
  }
  std::erase_if(expected, [](const auto& frame) { return frame.size() < 21; });

  H264RTPProcesser processer;
  processer.SetIgnoreDelimiters(delimiters);
  Frames frames;
  processer.SetFrameCallback(&Collect, &frames);
  test::RtpPacketizer rtp(1, maxPayload);
  auto boundary = rtp.Packet(std::vector<std::uint8_t>{0x41}, true);
  processer.ProcessData(boundary.data(), static_cast<int>(boundary.size()));
  for (auto& packet : rtp.H264Units({units.begin(), units.end()}, aggregate)) {
    processer.ProcessData(packet.data(), static_cast<int>(packet.size()));
  }
  if (frames != expected) {
    std::abort();
  }
  return 0;
}
