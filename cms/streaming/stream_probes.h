// Probes into an assembled video frame: its codec, where its headers begin, whether it is a key
// frame, and the picture size that it announces. Nothing is decoded.
//
// All functions are pure: no state, no allocation, no lock; any thread may call them. None reads
// past the span that it is given: bytes beyond it match nothing. The plain exported functions over
// these are in cms/exports/stream_probe_exports.h.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "cms/live/media/codec_id.h"
#include "cms/runtime/api.h"

namespace cms {

// A calendar time. Months and days count from 1, Sunday is day 0 of the week.
struct CMSSystemTime {
  std::uint16_t wYear;
  std::uint16_t wMonth;
  std::uint16_t wDayOfWeek;
  std::uint16_t wDay;
  std::uint16_t wHour;
  std::uint16_t wMinute;
  std::uint16_t wSecond;
  std::uint16_t wMilliseconds;
};

}  // namespace cms
static_assert(sizeof(cms::CMSSystemTime) == 16);

namespace cms {

using Bytes = std::span<const unsigned char>;

struct PictureSize {
  int width = 0;
  int height = 0;
  bool operator==(const PictureSize&) const = default;
};

CMS_API CMSVideoType VideoTypeOf(Bytes frame);

// The same for a key frame, H.265 included: its first unit is one that begins no H.264 key frame.
CMS_API CMSVideoType VideoTypeOfKeyFrame(Bytes frame);

// What the header area of a frame says, and for one that says nothing VideoTypeOfKeyFrame.
CMS_API CMSVideoType VideoTypeOfKeyFrame(Bytes area, Bytes frame);

// Offset just behind the first start code of the kind (for H.264: behind the NAL header), or -1
// when there is none with at least one byte behind it. Data shorter than the pattern (4 bytes for
// MPEG-4, 5 for H.264) answers with its length plus the pattern's: callers that go on to read
// check the offset against the length.
CMS_API int Mpeg4VopDataPos(Bytes frame);  // 00 00 01 B6
CMS_API int Mpeg4VolDataPos(Bytes frame);  // 00 00 01 20 to 2F
CMS_API int H264SpsDataPos(Bytes frame);   // 00 00 00 01 and a NAL header of type 7
CMS_API int H264SeiDataPos(Bytes frame);   // 00 00 00 01 and a NAL header of type 6

// Offset just behind the two-byte NAL header of the first H.265 sequence parameter set, or -1 when
// there is none with at least one byte behind it.
CMS_API int H265SpsDataPos(Bytes frame);

// 1 = I-VOP, 2 = P-VOP, 3 = B-VOP, 4 = S-VOP, of the bytes behind the VOP start code; 0 when there
// are none.
CMS_API int Mpeg4FrameType(Bytes vop);

// True when the first VOP of the data is an I-VOP.
CMS_API bool StartsWithMpeg4IVop(Bytes data);

// Most bytes of a video object layer header that Mpeg4Size looks at.
inline constexpr std::size_t kMaxVolBytes = 32;

// The size announced by the bytes behind a video-object-layer start code (ISO/IEC 14496-2, 6.2.3);
// halveInterlaced gives the size of a field for an interlaced layer. Nothing for a layer that is
// not rectangular, or cut short.
CMS_API std::optional<PictureSize> Mpeg4Size(Bytes vol, bool halveInterlaced);

// Most bytes of a sequence parameter set that H264Size looks at.
inline constexpr std::size_t kMaxSpsBytes = 4096;

// The size announced by a sequence parameter set, from the byte behind its NAL header (ITU-T H.264,
// 7.3.2.1.1). Every set is taken to have the baseline/main layout, and neither cropping nor field
// coding is read: the sums 1952, 1088 and 608 become the heights 1944, 1080 and 600. The size of a
// high-profile set is therefore not to be relied upon. Nothing when a limit is broken or the set
// is cut short.
CMS_API std::optional<PictureSize> H264Size(Bytes sps);

struct SeiMessage {
  unsigned int type = 0;
  unsigned int size = 0;  // as announced; may exceed the data
  int payloadPos = 0;     // offset of the payload in the data
};

// The head of an SEI message (ITU-T H.264, 7.3.2.3.1), nothing when it is cut short.
CMS_API std::optional<SeiMessage> ParseSeiMessage(Bytes message);

// The size in the first SOF0 header of a JPEG; 0 x 0 when there is none (progressive pictures).
CMS_API PictureSize MjpegSize(Bytes frame);

// Seconds since 1970 of a UTC calendar time plus one day: the shift is part of the interface, and
// callers that convert back take it off again. Fields beyond their range carry over.
CMS_API std::int64_t SystemTimeToSeconds(const CMSSystemTime& time);

}  // namespace cms
