#include "bench/support/stream_server.h"
#include "cms/runtime/digest.h"
#include "tests/support/rtp_packetizer.h"

namespace bench {

PacketizedClip::PacketizedClip(const std::vector<test::EncodedFrame>& frames) {
  constexpr std::size_t kHeader = 12;  // each client has its own
  constexpr unsigned kSps = 7;
  constexpr unsigned kPps = 8;
  test::RtpPacketizer packetizer(1, kPayload);
  for (const test::EncodedFrame& frame : frames) {
    std::vector<Packet>& packets = frames_.emplace_back();
    for (const test::RtpPacket& packet : packetizer.H264(frame.data)) {
      packets.push_back({bytes_.size(), packet.size() - kHeader, (packet[1] & 0x80) != 0});
      bytes_.insert(bytes_.end(), packet.begin() + kHeader, packet.end());
      ++packetCount_;
    }
  }
  std::string sps;
  std::string pps;
  for (const test::Bytes unit : test::SplitAnnexB(frames.front().data)) {
    const unsigned type = unit[0] & 0x1Fu;
    sps = type == kSps ? cms::Base64(unit) : sps;
    pps = type == kPps ? cms::Base64(unit) : pps;
  }
  parameterSets_ = sps + "," + pps;
}

}  // namespace bench
