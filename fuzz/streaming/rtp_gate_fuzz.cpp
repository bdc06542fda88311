// Any packets through the gate, on a stream of any type: what comes out is the packet itself or a
// packet of padding with its number, RTP version 2, and over UDP never the same packet twice in a
// row. The first two bytes choose the type and the transport; each packet has its length in front.
#include <algorithm>
#include <vector>

#include "cms/streaming/internal/rtp_gate.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  const bool udp = (data[1] & 1) != 0;
  cms::RtpGate gate;
  gate.Start(data[0], udp);
  for (std::size_t at = 2; at < size;) {
    const std::size_t length = std::min<std::size_t>(data[at], size - at - 1);
    const std::vector<std::uint8_t> packet(data + at + 1, data + at + 1 + length);
    at += 1 + length;
    const auto admitted = gate.Admit(packet);
    if (admitted.empty()) continue;
    CHECK(packet.size() >= 12 && admitted.size() >= 12 && admitted[0] >> 6 == 2);
    CHECK(std::equal(admitted.begin() + 2, admitted.begin() + 12, packet.begin() + 2));
    const bool whole = admitted.data() == packet.data() && admitted.size() == packet.size();
    CHECK(whole || (admitted.size() == 13 && admitted[0] == 0xA0 && admitted[12] == 1));
    CHECK(!udp || !whole || gate.Admit(packet).empty());
  }
  return 0;
}
