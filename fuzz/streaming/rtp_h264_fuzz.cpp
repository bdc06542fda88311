// Any sequence of RTP packets: no read outside a packet, every frame within its limits.
#include "cms/streaming/h264_rtp_processer.h"
#include "fuzz/streaming/rtp_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::uint8_t switches = fuzz::TakeByte(input);
  H264RTPProcesser processer;
  processer.SetIgnoreDelimiters((switches & 1) != 0);
  processer.SetIsBPSCounting((switches & 4) != 0);
  if ((switches & 8) != 0) {
    auto sps = fuzz::TakeBlock(input);
    auto pps = fuzz::TakeBlock(input);
    processer.SetSPSSet(sps.data(), static_cast<unsigned>(sps.size()));
    processer.SetPPSSet(pps.data(), static_cast<unsigned>(pps.size()));
  }
  fuzz::FeedPackets(processer, input, (switches & 2) != 0);
  return 0;
}
