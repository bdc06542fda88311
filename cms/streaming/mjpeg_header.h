// The JPEG header that RTP leaves out (RFC 2435): CMJPEGMainHeader makes it again.
#pragma once

#include <cstddef>
#include <memory>
#include <span>

#include "cms/runtime/api.h"

// The header of the frame last seen and what it was made for.
struct CMS_API tMJPEGJFIFHeaderParam {
  static constexpr std::size_t kTableLength = 64;
  static constexpr std::size_t kHeaderLength = 605;
  static constexpr std::size_t kMaxHeaderLength = kHeaderLength + 6;  // with a restart interval

  int headerLength;  // 0 while no header has been generated
  unsigned char q;
  unsigned char type;
  unsigned char lumaTable[kTableLength];  // both in zig-zag order
  unsigned char chromaTable[kTableLength];
  unsigned char header[kMaxHeaderLength];
  unsigned char width;  // in units of 8 pixels, as is the height
  unsigned char height;
};

// Reads the JPEG payload headers of RFC 2435 (section 3.1) and generates JPEG headers. `payload` is
// an RTP payload from its first byte; a payload whose headers are cut short yields false or 0.
// Stateless; any thread.
class CMS_API CMJPEGMainHeader {
 public:
  using Payload = std::span<const unsigned char>;

  static constexpr std::size_t kMainHeader = 8;
  static constexpr std::size_t kRestartHeader = 4;
  static constexpr std::size_t kQuantHeader = 4;

  static std::unique_ptr<tMJPEGJFIFHeaderParam> CreateParam();  // zeroed

  // The fields; the payload holds the main header.
  static std::size_t FragmentOffset(Payload payload) {
    return static_cast<std::size_t>(payload[1] << 16 | payload[2] << 8 | payload[3]);
  }
  static unsigned char Type(Payload payload) { return payload[4]; }
  static unsigned char Q(Payload payload) { return payload[5]; }
  static unsigned char Width(Payload payload) { return payload[6]; }
  static unsigned char Height(Payload payload) { return payload[7]; }

  static bool HaveMJPEGRSTHeader(Payload payload);
  static bool HaveMJPEGQsHeader(Payload payload);
  // Offset of the scan data; 0 when the headers do not lie in the payload.
  static std::size_t GetDataOffset(Payload payload);

  // Makes the header for the frame that begins with this payload and stores it with what it was
  // made for. In-band tables replace the stored ones as far as they go, 128 bytes at most. The
  // header's length, or 0 with `param` untouched when the payload's headers are cut short.
  static int GenerateJPEGHeader(Payload payload, tMJPEGJFIFHeaderParam& param);

  // Both tables of a Q below 128 (RFC 2435, appendix A).
  static void MakeTables(int q, unsigned char* luma, unsigned char* chroma);
  // The whole header from the tables, type and size in `param`; the length.
  static int MakeHeaders(tMJPEGJFIFHeaderParam& param, unsigned int restartInterval);
  // One segment each, written at `out`; the position behind it.
  static unsigned char* MakeQuantHeader(unsigned char* out, const unsigned char* table,
                                        unsigned char id);
  static unsigned char* MakeHuffmanHeader(unsigned char* out,
                                          std::span<const unsigned char, 16> codeCounts,
                                          Payload symbols, unsigned char classAndId);
  static unsigned char* MakeDRIHeader(unsigned char* out, unsigned int restartInterval);
};
