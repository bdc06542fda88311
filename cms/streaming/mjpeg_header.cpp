#include "cms/streaming/mjpeg_header.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

constexpr unsigned char kInBandTables = 128;  // the first Q value with tables in the stream

// ITU-T T.81, tables K.1 and K.2, in zig-zag order.
constexpr unsigned char kStandardLuma[] = {
    16, 11, 12,  14,  12,  10, 16, 14,  13,  14,  18,  17,  16, 19,  24,  40,
    26, 24, 22,  22,  24,  49, 35, 37,  29,  40,  58,  51,  61, 60,  57,  51,
    56, 55, 64,  72,  92,  78, 64, 68,  87,  69,  55,  56,  80, 109, 81,  87,
    95, 98, 103, 104, 103, 62, 77, 113, 121, 112, 100, 120, 92, 101, 103, 99};
constexpr unsigned char kStandardChroma[] = {
    17, 18, 18, 24, 21, 24, 47, 26, 26, 47, 99, 66, 56, 66, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99,
    99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99, 99};
static_assert(std::size(kStandardLuma) == 64 && std::size(kStandardChroma) == 64);

// ITU-T T.81, tables K.3 to K.6.
constexpr unsigned char kLumaDcCounts[16] = {0, 1, 5, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0, 0, 0};
constexpr unsigned char kChromaDcCounts[16] = {0, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 0, 0, 0, 0, 0};
constexpr unsigned char kDcSymbols[] = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11};
constexpr unsigned char kLumaAcCounts[16] = {0, 2, 1, 3, 3, 2, 4, 3, 5, 5, 4, 4, 0, 0, 1, 0x7D};
constexpr unsigned char kLumaAcSymbols[] = {
    0x01, 0x02, 0x03, 0x00, 0x04, 0x11, 0x05, 0x12, 0x21, 0x31, 0x41, 0x06, 0x13, 0x51, 0x61,
    0x07, 0x22, 0x71, 0x14, 0x32, 0x81, 0x91, 0xA1, 0x08, 0x23, 0x42, 0xB1, 0xC1, 0x15, 0x52,
    0xD1, 0xF0, 0x24, 0x33, 0x62, 0x72, 0x82, 0x09, 0x0A, 0x16, 0x17, 0x18, 0x19, 0x1A, 0x25,
    0x26, 0x27, 0x28, 0x29, 0x2A, 0x34, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3A, 0x43, 0x44, 0x45,
    0x46, 0x47, 0x48, 0x49, 0x4A, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0x63, 0x64,
    0x65, 0x66, 0x67, 0x68, 0x69, 0x6A, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A, 0x83,
    0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97, 0x98, 0x99,
    0x9A, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xB2, 0xB3, 0xB4, 0xB5, 0xB6,
    0xB7, 0xB8, 0xB9, 0xBA, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xCA, 0xD2, 0xD3,
    0xD4, 0xD5, 0xD6, 0xD7, 0xD8, 0xD9, 0xDA, 0xE1, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7, 0xE8,
    0xE9, 0xEA, 0xF1, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA};
constexpr unsigned char kChromaAcCounts[16] = {0, 2, 1, 2, 4, 4, 3, 4, 7, 5, 4, 4, 0, 1, 2, 0x77};
constexpr unsigned char kChromaAcSymbols[] = {
    0x00, 0x01, 0x02, 0x03, 0x11, 0x04, 0x05, 0x21, 0x31, 0x06, 0x12, 0x41, 0x51, 0x07, 0x61,
    0x71, 0x13, 0x22, 0x32, 0x81, 0x08, 0x14, 0x42, 0x91, 0xA1, 0xB1, 0xC1, 0x09, 0x23, 0x33,
    0x52, 0xF0, 0x15, 0x62, 0x72, 0xD1, 0x0A, 0x16, 0x24, 0x34, 0xE1, 0x25, 0xF1, 0x17, 0x18,
    0x19, 0x1A, 0x26, 0x27, 0x28, 0x29, 0x2A, 0x35, 0x36, 0x37, 0x38, 0x39, 0x3A, 0x43, 0x44,
    0x45, 0x46, 0x47, 0x48, 0x49, 0x4A, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, 0x59, 0x5A, 0x63,
    0x64, 0x65, 0x66, 0x67, 0x68, 0x69, 0x6A, 0x73, 0x74, 0x75, 0x76, 0x77, 0x78, 0x79, 0x7A,
    0x82, 0x83, 0x84, 0x85, 0x86, 0x87, 0x88, 0x89, 0x8A, 0x92, 0x93, 0x94, 0x95, 0x96, 0x97,
    0x98, 0x99, 0x9A, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xB2, 0xB3, 0xB4,
    0xB5, 0xB6, 0xB7, 0xB8, 0xB9, 0xBA, 0xC2, 0xC3, 0xC4, 0xC5, 0xC6, 0xC7, 0xC8, 0xC9, 0xCA,
    0xD2, 0xD3, 0xD4, 0xD5, 0xD6, 0xD7, 0xD8, 0xD9, 0xDA, 0xE2, 0xE3, 0xE4, 0xE5, 0xE6, 0xE7,
    0xE8, 0xE9, 0xEA, 0xF2, 0xF3, 0xF4, 0xF5, 0xF6, 0xF7, 0xF8, 0xF9, 0xFA};
static_assert(std::size(kLumaAcSymbols) == 162 && std::size(kChromaAcSymbols) == 162);

unsigned char* Put(unsigned char* out, std::span<const unsigned char> bytes) {
  return std::copy(bytes.begin(), bytes.end(), out);
}

std::size_t ReadLength(const unsigned char* data) {
  return static_cast<std::size_t>(data[0] << 8 | data[1]);
}

unsigned char High(unsigned int value) {
  return static_cast<unsigned char>(value >> 8);
}

unsigned char Low(unsigned int value) {
  return static_cast<unsigned char>(value);
}

}  // namespace

std::unique_ptr<tMJPEGJFIFHeaderParam> CMJPEGMainHeader::CreateParam() {
  return std::make_unique<tMJPEGJFIFHeaderParam>();
}

bool CMJPEGMainHeader::HaveMJPEGRSTHeader(Payload payload) {
  return payload.size() >= kMainHeader && Type(payload) >= 64 && Type(payload) <= 127;
}

bool CMJPEGMainHeader::HaveMJPEGQsHeader(Payload payload) {
  return payload.size() >= kMainHeader && FragmentOffset(payload) == 0 &&
         Q(payload) >= kInBandTables;
}

std::size_t CMJPEGMainHeader::GetDataOffset(Payload payload) {
  std::size_t offset = kMainHeader + (HaveMJPEGRSTHeader(payload) ? kRestartHeader : 0);
  if (offset <= payload.size() && HaveMJPEGQsHeader(payload)) {
    if (offset + kQuantHeader > payload.size()) {
      return 0;
    }
    offset += kQuantHeader + ReadLength(payload.data() + offset + 2);
  }
  return offset <= payload.size() ? offset : 0;
}

int CMJPEGMainHeader::GenerateJPEGHeader(Payload payload, tMJPEGJFIFHeaderParam& param) {
  const std::size_t dataOffset = GetDataOffset(payload);
  if (dataOffset == 0) {
    return 0;
  }
  const bool restarts = HaveMJPEGRSTHeader(payload);
  if (HaveMJPEGQsHeader(payload)) {
    const std::size_t at = kMainHeader + (restarts ? kRestartHeader : 0) + kQuantHeader;
    const Payload tables = payload.subspan(at, dataOffset - at);
    constexpr std::size_t kLength = tMJPEGJFIFHeaderParam::kTableLength;
    const Payload luma = tables.first(std::min(tables.size(), kLength));
    Put(param.lumaTable, luma);
    const Payload rest = tables.subspan(luma.size());
    Put(param.chromaTable, rest.first(std::min(rest.size(), kLength)));
  } else if (Q(payload) < kInBandTables) {
    MakeTables(Q(payload), param.lumaTable, param.chromaTable);
  }
  param.q = Q(payload);
  param.type = Type(payload);
  param.width = Width(payload);
  param.height = Height(payload);
  const std::size_t interval = restarts ? ReadLength(payload.data() + kMainHeader) : 0;
  return MakeHeaders(param, static_cast<unsigned int>(interval));
}

void CMJPEGMainHeader::MakeTables(int q, unsigned char* luma, unsigned char* chroma) {
  q = std::clamp(q, 1, 99);
  const int factor = q < 50 ? 5000 / q : 200 - 2 * q;
  const auto scale = [factor](unsigned char entry) {
    return static_cast<unsigned char>(std::clamp((entry * factor + 50) / 100, 1, 255));
  };
  std::transform(std::begin(kStandardLuma), std::end(kStandardLuma), luma, scale);
  std::transform(std::begin(kStandardChroma), std::end(kStandardChroma), chroma, scale);
}

int CMJPEGMainHeader::MakeHeaders(tMJPEGJFIFHeaderParam& param, unsigned int restartInterval) {
  unsigned char* out = param.header;
  *out++ = 0xFF;
  *out++ = 0xD8;
  out = MakeQuantHeader(out, param.lumaTable, 0);
  out = MakeQuantHeader(out, param.chromaTable, 1);
  if (restartInterval != 0) {
    out = MakeDRIHeader(out, restartInterval);
  }
  const unsigned int height = param.height * 8u;
  const unsigned int width = param.width * 8u;
  // Type 0 alone is 4:2:2; its variant with restart markers (64) has always been taken for 4:2:0.
  const unsigned char sampling = param.type == 0 ? 0x21 : 0x22;
  const unsigned char sof[] = {
      0xFF, 0xC0, 0x00,     0x11, 0x08, High(height), Low(height), High(width), Low(width),
      3,    0,    sampling, 0,    1,    0x11,         1,           2,           0x11,
      1};
  out = Put(out, sof);
  out = MakeHuffmanHeader(out, kLumaDcCounts, kDcSymbols, 0x00);
  out = MakeHuffmanHeader(out, kLumaAcCounts, kLumaAcSymbols, 0x10);
  out = MakeHuffmanHeader(out, kChromaDcCounts, kDcSymbols, 0x01);
  out = MakeHuffmanHeader(out, kChromaAcCounts, kChromaAcSymbols, 0x11);
  constexpr unsigned char kScan[] = {0xFF, 0xDA, 0x00, 0x0C, 3,    0,    0x00,
                                     1,    0x11, 2,    0x11, 0x00, 0x3F, 0x00};
  out = Put(out, kScan);
  param.headerLength = static_cast<int>(out - param.header);
  return param.headerLength;
}

unsigned char* CMJPEGMainHeader::MakeQuantHeader(unsigned char* out, const unsigned char* table,
                                                 unsigned char id) {
  const unsigned char segment[] = {0xFF, 0xDB, 0x00, 0x43, id};
  out = Put(out, segment);
  return Put(out, {table, tMJPEGJFIFHeaderParam::kTableLength});
}

unsigned char* CMJPEGMainHeader::MakeHuffmanHeader(unsigned char* out,
                                                   std::span<const unsigned char, 16> codeCounts,
                                                   Payload symbols, unsigned char classAndId) {
  const auto length = static_cast<unsigned int>(3 + codeCounts.size() + symbols.size());
  const unsigned char segment[] = {0xFF, 0xC4, High(length), Low(length), classAndId};
  out = Put(out, segment);
  out = Put(out, codeCounts);
  return Put(out, symbols);
}

unsigned char* CMJPEGMainHeader::MakeDRIHeader(unsigned char* out, unsigned int restartInterval) {
  const unsigned char segment[] = {
      0xFF, 0xDD, 0x00, 0x04, High(restartInterval), Low(restartInterval)};
  return Put(out, segment);
}
