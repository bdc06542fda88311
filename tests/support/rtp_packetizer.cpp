#include "tests/support/rtp_packetizer.h"

#include <algorithm>
#include <stdexcept>

namespace test {
namespace {

void Append(std::vector<std::uint8_t>& out, Bytes bytes) {
  out.insert(out.end(), bytes.begin(), bytes.end());
}

void Append16(std::vector<std::uint8_t>& out, std::size_t value) {
  out.push_back(static_cast<std::uint8_t>(value >> 8));
  out.push_back(static_cast<std::uint8_t>(value));
}

unsigned Type(Bytes unit) {
  return unit.empty() ? 0 : unit[0] & 0x1Fu;
}

bool IsPictureSlice(Bytes unit) {
  return Type(unit) >= 1 && Type(unit) <= 5;
}

struct JpegParts {
  std::vector<std::uint8_t> tables;  // luma, chroma
  std::uint8_t width = 0;            // in units of 8 pixels
  std::uint8_t height = 0;
  std::size_t restartInterval = 0;
  std::uint8_t type = 1;  // 4:2:0
  Bytes scan;             // with the end-of-image marker
};

JpegParts ParseJpeg(Bytes jpeg) {
  JpegParts parts;
  parts.tables.resize(128);
  std::size_t at = 2;
  while (at + 4 <= jpeg.size() && jpeg[at] == 0xFF) {
    const unsigned marker = jpeg[at + 1];
    const std::size_t length = static_cast<std::size_t>(jpeg[at + 2] << 8 | jpeg[at + 3]);
    const Bytes body = jpeg.subspan(at + 4, length - 2);
    if (marker == 0xDB) {
      for (std::size_t table = 0; table + 65 <= body.size(); table += 65) {
        std::copy_n(body.begin() + static_cast<std::ptrdiff_t>(table) + 1, 64,
                    parts.tables.begin() + 64 * (body[table] & 1));
      }
    } else if (marker == 0xC0) {
      parts.height = static_cast<std::uint8_t>(((body[1] << 8 | body[2]) + 7) / 8);
      parts.type = body[7] == 0x21 ? 0 : 1;  // of the first component's sampling
      parts.width = static_cast<std::uint8_t>(((body[3] << 8 | body[4]) + 7) / 8);
    } else if (marker == 0xDD) {
      parts.restartInterval = static_cast<std::size_t>(body[0] << 8 | body[1]);
    }
    at += 2 + length;
    if (marker == 0xDA) {
      parts.scan = jpeg.subspan(at);
      return parts;
    }
  }
  throw std::runtime_error("no scan in the JPEG");
}

}  // namespace

std::vector<Bytes> SplitAnnexB(Bytes frame) {
  std::vector<Bytes> units;
  const auto startCodeAt = [&](std::size_t at) {
    return at + 3 <= frame.size() && frame[at] == 0 && frame[at + 1] == 0 && frame[at + 2] == 1;
  };
  std::size_t at = 0;
  while (at < frame.size() && !startCodeAt(at)) {
    ++at;
  }
  while (at < frame.size()) {
    const std::size_t begin = at + 3;
    at = begin;
    while (at < frame.size() && !startCodeAt(at)) {
      ++at;
    }
    std::size_t end = at;
    while (end > begin && at < frame.size() && frame[end - 1] == 0) {
      --end;  // the zero of a 4-byte start code
    }
    units.push_back(frame.subspan(begin, end - begin));
  }
  return units;
}

std::vector<std::uint8_t> WithLongStartCodes(Bytes frame) {
  std::vector<std::uint8_t> out;
  for (const Bytes unit : SplitAnnexB(frame)) {
    out.insert(out.end(), {0, 0, 0, 1});
    Append(out, unit);
  }
  return out;
}

RtpPacket RtpPacketizer::Packet(Bytes payload, bool marker) {
  RtpPacket packet = {0x80, static_cast<std::uint8_t>(marker ? 0xE0 : 0x60)};
  Append16(packet, sequence_++);
  Append16(packet, timestamp_ >> 16);
  Append16(packet, timestamp_ & 0xFFFF);
  packet.insert(packet.end(), {0x12, 0x34, 0x56, 0x78});
  Append(packet, payload);
  if (marker) {
    timestamp_ += 3600;
  }
  return packet;
}

void RtpPacketizer::AddFragments(Bytes unit, bool marker, RtpPackets& packets) {
  const auto indicator = static_cast<std::uint8_t>((unit[0] & 0xE0) | 28);
  const auto type = static_cast<std::uint8_t>(unit[0] & 0x1F);
  Bytes rest = unit.subspan(1);
  bool first = true;
  while (!rest.empty()) {
    const Bytes part = rest.first(std::min(rest.size(), maxPayload_ - 2));
    rest = rest.subspan(part.size());
    std::vector<std::uint8_t> payload = {
        indicator,
        static_cast<std::uint8_t>(type | (first ? 0x80 : 0) | (rest.empty() ? 0x40 : 0))};
    Append(payload, part);
    packets.push_back(Packet(payload, marker && rest.empty()));
    first = false;
  }
}

RtpPackets RtpPacketizer::H264(Bytes annexB, bool aggregate) {
  return H264Units(SplitAnnexB(annexB), aggregate);
}

RtpPackets RtpPacketizer::H264Units(const std::vector<Bytes>& units, bool aggregate) {
  RtpPackets packets;
  std::size_t next = 0;
  if (aggregate) {
    std::vector<std::uint8_t> payload = {24};
    while (next < units.size() && !IsPictureSlice(units[next]) &&
           payload.size() + 2 + units[next].size() <= maxPayload_) {
      Append16(payload, units[next].size());
      Append(payload, units[next]);
      ++next;
    }
    if (next > 0) {
      packets.push_back(Packet(payload, next == units.size()));
    }
  }
  for (; next < units.size(); ++next) {
    const bool last = next + 1 == units.size();
    if (units[next].size() <= maxPayload_) {
      packets.push_back(Packet(units[next], last));
    } else {
      AddFragments(units[next], last, packets);
    }
  }
  return packets;
}

RtpPackets RtpPacketizer::H265(Bytes annexB, bool aggregate, bool orderNumbers) {
  return H265Units(SplitAnnexB(annexB), aggregate, orderNumbers);
}

RtpPackets RtpPacketizer::H265Units(const std::vector<Bytes>& units, bool aggregate,
                                    bool orderNumbers) {
  const auto type = [](Bytes unit) { return static_cast<unsigned>(unit[0]) >> 1 & 0x3F; };
  const auto number = [&](std::vector<std::uint8_t>& payload) {
    if (orderNumbers) {
      Append16(payload, orderNumber_);
    }
    ++orderNumber_;
  };
  RtpPackets packets;
  std::size_t next = 0;
  if (aggregate) {
    std::vector<std::uint8_t> payload = {48 << 1, 1};
    while (next < units.size() && type(units[next]) > 31 &&
           payload.size() + 4 + units[next].size() <= maxPayload_) {
      if (next == 0) {
        number(payload);
      } else if (orderNumbers) {
        payload.push_back(0);  // the difference, less 1
        ++orderNumber_;
      }
      Append16(payload, units[next].size());
      Append(payload, units[next]);
      ++next;
    }
    if (next > 0) {
      packets.push_back(Packet(payload, next == units.size()));
    }
  }
  for (; next < units.size(); ++next) {
    const Bytes unit = units[next];
    const bool last = next + 1 == units.size();
    if (unit.size() + (orderNumbers ? 2 : 0) <= maxPayload_) {
      std::vector<std::uint8_t> payload(unit.begin(), unit.begin() + 2);
      number(payload);
      Append(payload, unit.subspan(2));
      packets.push_back(Packet(payload, last));
      continue;
    }
    for (Bytes rest = unit.subspan(2); !rest.empty();) {
      const bool first = rest.size() == unit.size() - 2;
      const Bytes part = rest.first(std::min(rest.size(), maxPayload_ - 5));
      rest = rest.subspan(part.size());
      std::vector<std::uint8_t> payload = {
          static_cast<std::uint8_t>((unit[0] & 0x81) | 49 << 1), unit[1],
          static_cast<std::uint8_t>(type(unit) | (first ? 0x80 : 0) | (rest.empty() ? 0x40 : 0))};
      if (first) {
        number(payload);
      }
      Append(payload, part);
      packets.push_back(Packet(payload, last && rest.empty()));
    }
  }
  return packets;
}

RtpPackets RtpPacketizer::Jpeg(Bytes jpeg, const JpegOptions& options) {
  const JpegParts parts = ParseJpeg(jpeg);
  const Bytes scan = options.endMarker ? parts.scan : parts.scan.first(parts.scan.size() - 2);
  RtpPackets packets;
  std::size_t offset = 0;
  while (offset < scan.size()) {
    std::vector<std::uint8_t> payload = {0, static_cast<std::uint8_t>(offset >> 16)};
    Append16(payload, offset & 0xFFFF);
    payload.push_back(
        static_cast<std::uint8_t>(parts.type + (parts.restartInterval != 0 ? 64 : 0)));
    payload.push_back(static_cast<std::uint8_t>(options.q));
    payload.push_back(parts.width);
    payload.push_back(parts.height);
    if (parts.restartInterval != 0) {
      Append16(payload, parts.restartInterval);
      Append16(payload, 0xFFFF);  // whole frames only: first and last bit set, count all ones
    }
    if (offset == 0 && options.q >= 128) {
      Append16(payload, 0);
      Append16(payload, parts.tables.size());
      Append(payload, parts.tables);
    }
    const std::size_t count = std::min(scan.size() - offset, maxPayload_ - payload.size());
    Append(payload, scan.subspan(offset, count));
    offset += count;
    packets.push_back(Packet(payload, offset == scan.size()));
  }
  return packets;
}

RtpPackets RtpPacketizer::Mpeg4(Bytes frame) {
  RtpPackets packets;
  while (!frame.empty()) {
    const Bytes part = frame.first(std::min(frame.size(), maxPayload_));
    frame = frame.subspan(part.size());
    packets.push_back(Packet(part, frame.empty()));
  }
  return packets;
}

}  // namespace test
