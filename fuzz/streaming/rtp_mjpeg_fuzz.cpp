// Any sequence of RTP packets: no read outside a packet, every frame within its limits.
#include "cms/streaming/mjpeg_rtp_processer.h"
#include "fuzz/streaming/rtp_input.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  fuzz::Input input(data, size);
  const std::uint8_t switches = fuzz::TakeByte(input);
  MJPEGRTPProcesser processer;
  fuzz::FeedPackets(processer, input, (switches & 2) != 0);
  return 0;
}
