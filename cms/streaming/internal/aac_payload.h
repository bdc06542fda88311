// How a session description says that AAC lies in RTP packets (RFC 3640, mpeg4-generic; RFC 6416,
// MP4A-LATM).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cms/live/media/internal/adts.h"
#include "cms/streaming/internal/stream_mux.h"

namespace cms {

// What is told of LATM (RFC 6416, 7.3).
struct LatmPayload {
  std::optional<StreamMux> mux;  // the description's
  bool inBand = false;           // elements may bring one of their own
};

// The bits of the AU headers (RFC 3640, 3.2.1) and what the access units are.
struct AacPayload {
  AdtsFormat format;
  unsigned sizeLength = 13;
  unsigned indexLength = 3;       // in the first AU header of a packet
  unsigned indexDeltaLength = 3;  // in the others
  unsigned ctsDeltaLength = 0;
  unsigned dtsDeltaLength = 0;
  bool randomAccess = false;
  unsigned streamStateLength = 0;
  unsigned auxiliarySizeLength = 0;
  std::uint32_t constantSize = 0;   // bytes, where AU headers tell no size
  std::uint32_t unitTicks = 1024;   // of the RTP clock, from one access unit to the next
  std::optional<LatmPayload> latm;  // in place of AU headers

  // Whether packets begin with AU headers.
  bool HasUnitHeaders() const {
    return sizeLength + indexLength + indexDeltaLength + ctsDeltaLength + dtsDeltaLength +
                   streamStateLength !=
               0 ||
           randomAccess;
  }
};

// `parameters`: what follows the payload type in the "a=fmtp:" line, empty where there is none;
// `clockRate` and `channels` are the rtpmap's. Nothing, and why in `problem`, where the sound
// cannot be received: an interleaved stream, another mode, an AAC that ADTS has no words for.
std::optional<AacPayload> ReadAacPayload(std::string_view parameters, std::uint32_t clockRate,
                                         std::uint32_t channels, std::string* problem);
// The same of MP4A-LATM.
std::optional<AacPayload> ReadLatmPayload(std::string_view parameters, std::uint32_t clockRate,
                                          std::uint32_t channels, std::string* problem);

}  // namespace cms
