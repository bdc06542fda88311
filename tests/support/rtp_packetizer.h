// Encoded frames cut into RTP packets the way the RFCs ask senders to.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace test {

using Bytes = std::span<const std::uint8_t>;
using RtpPacket = std::vector<std::uint8_t>;
using RtpPackets = std::vector<RtpPacket>;

// The NAL units of an Annex B frame, without start codes.
std::vector<Bytes> SplitAnnexB(Bytes frame);
// The same frame with nothing but 4-byte start codes.
std::vector<std::uint8_t> WithLongStartCodes(Bytes frame);

struct JpegOptions {
  int q = 255;            // 128 and more: tables in band
  bool endMarker = true;  // leave the end-of-image marker in the scan data
};

// Numbers its packets on; one object is one stream.
class RtpPacketizer {
 public:
  explicit RtpPacketizer(std::uint16_t firstSequence = 1, std::size_t maxPayload = 1400)
      : sequence_(firstSequence), maxPayload_(maxPayload) {}

  RtpPacket Packet(Bytes payload, bool marker);
  void Skip(unsigned count) { sequence_ = static_cast<std::uint16_t>(sequence_ + count); }

  // RFC 6184: small units alone, or (aggregate) those in front of the picture in one STAP-A; large
  // ones in FU-A fragments. The marker is on the last packet.
  RtpPackets H264(Bytes annexB, bool aggregate = false);
  RtpPackets H264Units(const std::vector<Bytes>& units, bool aggregate = false);
  // RFC 7798, likewise; with `orderNumbers` each unit has its decoding order number.
  RtpPackets H265(Bytes annexB, bool aggregate = false, bool orderNumbers = false);
  RtpPackets H265Units(const std::vector<Bytes>& units, bool aggregate, bool orderNumbers);
  // RFC 2435; restart markers when the JPEG has a restart interval. The JPEG is baseline, 4:2:0 or
  // 4:2:2, with the standard Huffman tables.
  RtpPackets Jpeg(Bytes jpeg, const JpegOptions& options = {});
  // RFC 3016.
  RtpPackets Mpeg4(Bytes frame);

 private:
  void AddFragments(Bytes unit, bool marker, RtpPackets& packets);

  std::uint16_t sequence_;
  std::size_t maxPayload_;
  std::uint32_t timestamp_ = 0;
  std::uint16_t orderNumber_ = 0;
};

}  // namespace test
