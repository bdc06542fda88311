#include "bench/support/stream_server.h"
#include "cms/runtime/digest.h"
#include "tests/support/rtp_packetizer.h"

namespace bench {

namespace {

// The parameter set of that type in front of a key picture, in Base64.
std::string ParameterSet(test::Bytes picture, test::ClipCodec codec, unsigned type) {
  for (const test::Bytes unit : test::SplitAnnexB(picture)) {
    const unsigned its = codec == test::ClipCodec::kH265 ? unit[0] >> 1 & 0x3Fu : unit[0] & 0x1Fu;
    if (its == type) {
      return cms::Base64(unit);
    }
  }
  return {};
}

}  // namespace

PacketizedClip::PacketizedClip(const std::vector<test::EncodedFrame>& frames,
                               test::ClipCodec codec) {
  constexpr std::size_t kHeader = 12;  // each client has its own
  const bool h265 = codec == test::ClipCodec::kH265;
  test::RtpPacketizer packetizer(1, kPayload);
  for (const test::EncodedFrame& frame : frames) {
    std::vector<Packet>& packets = frames_.emplace_back();
    for (const test::RtpPacket& packet :
         h265 ? packetizer.H265(frame.data) : packetizer.H264(frame.data)) {
      packets.push_back({bytes_.size(), packet.size() - kHeader, (packet[1] & 0x80) != 0});
      bytes_.insert(bytes_.end(), packet.begin() + kHeader, packet.end());
      ++packetCount_;
    }
  }
  const auto set = [&](unsigned type) { return ParameterSet(frames.front().data, codec, type); };
  mediaLines_ = h265 ? "a=rtpmap:96 H265/90000\r\na=fmtp:96 sprop-vps=" + set(32) +
                           ";sprop-sps=" + set(33) + ";sprop-pps=" + set(34) + "\r\n"
                     : "a=rtpmap:96 H264/90000\r\na=fmtp:96 packetization-mode=1;"
                       "sprop-parameter-sets=" +
                           set(7) + "," + set(8) + "\r\n";
}

}  // namespace bench
