#include "tools/testcamera/picture_units.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace testcamera {
namespace {

using UnitBytes = std::span<const std::uint8_t>;

constexpr std::size_t kLength = 4;  // in front of each unit

// Unit headers and contents: H.264 7.3.1 and 7.3.2, H.265 7.3.1.2 and 7.3.2.
constexpr std::uint8_t kH264Delimiter[] = {9, 0xF0};
constexpr std::uint8_t kH265Delimiter[] = {35 << 1, 1, 0x50};
constexpr std::uint8_t kH264MessageHeader[] = {6};
constexpr std::uint8_t kH265MessageHeader[] = {39 << 1, 1};
constexpr std::uint8_t kH264FillerHeader[] = {12};
constexpr std::uint8_t kH265FillerHeader[] = {38 << 1, 1};
// User data: its type and length, a UUID, a text, and the end of the unit.
constexpr std::uint8_t kMessage[] = {5,    23,   0x6F, 0x72, 0x76, 0x61, 0x6E, 0x74, 0x61,
                                     0x2D, 0x63, 0x61, 0x6D, 0x65, 0x72, 0x61, 0x21, 0x21,
                                     'p',  'i',  'c',  't',  'u',  'r',  'e',  0x80};

class UnitWriter {
 public:
  void Reserve(std::size_t size) { out_.reserve(size); }
  void Add(std::initializer_list<UnitBytes> parts) {
    std::size_t size = 0;
    for (const UnitBytes part : parts) {
      size += part.size();
    }
    for (int shift = 24; shift >= 0; shift -= 8) {
      out_.push_back(static_cast<std::uint8_t>(size >> shift));
    }
    for (const UnitBytes part : parts) {
      out_.insert(out_.end(), part.begin(), part.end());
    }
  }
  const std::vector<std::uint8_t>& Written() const { return out_; }

 private:
  std::vector<std::uint8_t> out_;
};

class Mapped {
 public:
  explicit Mapped(GstBuffer* buffer) : buffer_(buffer) {
    gst_buffer_map(buffer_, &map_, GST_MAP_READ);
  }
  ~Mapped() { gst_buffer_unmap(buffer_, &map_); }
  Mapped(const Mapped&) = delete;
  Mapped& operator=(const Mapped&) = delete;
  UnitBytes Data() const { return {map_.data, map_.size}; }

 private:
  GstBuffer* buffer_;
  GstMapInfo map_;
};

struct UnitKind {
  bool dropped;  // parameter sets and delimiters
  bool key;      // a slice of a picture that decoding can begin with
};

UnitKind KindOf(VideoCodec codec, std::uint8_t first) {
  if (codec == VideoCodec::kH265) {
    const int type = first >> 1 & 0x3F;
    return {type >= 32 && type <= 35, type >= 16 && type <= 23};
  }
  const int type = first & 0x1F;
  return {type >= 7 && type <= 9, type == 5};
}

// The big-endian number at the beginning, or 0 when that is not there.
std::size_t ReadNumber(UnitBytes bytes, std::size_t size) {
  std::size_t number = 0;
  for (std::size_t i = 0; i < size && bytes.size() >= size; ++i) {
    number = number << 8 | bytes[i];
  }
  return number;
}

UnitBytes Behind(UnitBytes bytes, std::size_t count) {
  return bytes.subspan(std::min(count, bytes.size()));
}

// Adds `count` units with 2-byte lengths; what is left behind them.
UnitBytes AddSets(UnitBytes record, std::size_t count, UnitWriter& out) {
  for (; count > 0 && record.size() > 2; --count) {
    const UnitBytes unit =
        Behind(record, 2).first(std::min(ReadNumber(record, 2), record.size() - 2));
    out.Add({unit});
    record = Behind(record, 2 + unit.size());
  }
  return record;
}

void AddParameterSets(VideoCodec codec, UnitBytes record, UnitWriter& out) {
  if (codec == VideoCodec::kH265) {
    constexpr std::size_t kArrays = 22;
    std::size_t arrays = ReadNumber(Behind(record, kArrays), 1);
    for (record = Behind(record, kArrays + 1); arrays > 0; --arrays) {
      record = AddSets(Behind(record, 3), ReadNumber(Behind(record, 1), 2), out);
    }
    return;
  }
  constexpr std::size_t kSequenceSets = 5;
  record = Behind(record, kSequenceSets);
  record = AddSets(Behind(record, 1), ReadNumber(record, 1) & 0x1F, out);
  AddSets(Behind(record, 1), ReadNumber(record, 1), out);
}

}  // namespace

MiniPtr<GstBuffer> ConformUnits(GstBuffer* picture, GstBuffer* codecData, const UnitRules& rules) {
  const bool h265 = rules.codec == VideoCodec::kH265;
  const Mapped mapped(picture);
  std::vector<UnitBytes> units;
  bool key = false;
  for (UnitBytes rest = mapped.Data(); rest.size() > kLength;) {
    const std::size_t size = std::min(ReadNumber(rest, kLength), rest.size() - kLength);
    const UnitBytes unit = rest.subspan(kLength, size);
    const UnitKind kind = KindOf(rules.codec, unit.empty() ? 0 : unit.front());
    if (!kind.dropped) {
      units.push_back(unit);
    }
    key = key || kind.key;
    rest = rest.subspan(kLength + size);
  }
  UnitWriter out;
  out.Reserve(mapped.Data().size() + 256);
  if (rules.delimiters) {
    out.Add({h265 ? UnitBytes(kH265Delimiter) : UnitBytes(kH264Delimiter)});
  }
  if (key && rules.parameterSets && codecData != nullptr) {
    AddParameterSets(rules.codec, Mapped(codecData).Data(), out);
  }
  if (rules.messages) {
    out.Add({h265 ? UnitBytes(kH265MessageHeader) : UnitBytes(kH264MessageHeader), kMessage});
  }
  for (const UnitBytes unit : units) {
    out.Add({unit});
  }
  if (key && out.Written().size() < rules.keyPictureSize) {
    const std::vector<std::uint8_t> filler(rules.keyPictureSize - out.Written().size(), 0xFF);
    constexpr std::uint8_t kEnd[] = {0x80};
    out.Add({h265 ? UnitBytes(kH265FillerHeader) : UnitBytes(kH264FillerHeader), filler, kEnd});
  }
  MiniPtr<GstBuffer> result(gst_buffer_new_memdup(out.Written().data(), out.Written().size()));
  gst_buffer_copy_into(
      result.get(), picture,
      static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS), 0,
      static_cast<gsize>(-1));
  return result;
}

}  // namespace testcamera
