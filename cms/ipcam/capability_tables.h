// What cameras can do: the constant tables of resolutions, codecs, video systems and audio rates.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// One resolution of a camera's streams. All texts are zero-terminated constants.
struct stResolutionRow {
  std::int32_t id;         // its place in the table
  std::int32_t width;      // pixels
  std::int32_t height;     // pixels; of the 60 Hz size where the systems differ
  std::wstring_view key;   // the camera's word for it
  std::wstring_view ntsc;  // shown under a 60 Hz system
  std::wstring_view pal;   // shown under a 50 Hz system
};

}  // namespace cms

// Which streams of a camera the entries of a resolution list belong to, for lists of three, four
// and five entries; -1 marks an empty place.
inline constexpr std::int32_t THREE_RES_MAP_TBL[5] = {0, 2, 3, -1, -1};
inline constexpr std::int32_t FOUR_RES_MAP_TBL[5] = {0, 1, 2, 3, -1};
inline constexpr std::int32_t FIVE_RES_MAP_TBL[5] = {0, 2, 3, 4, 5};

namespace cms {

// Constant; any thread may read them.
CMS_API std::span<const stResolutionRow> ResolutionTable();          // row 0 is "disable": off
CMS_API std::span<const std::wstring_view> CodecNames();             // as ONVIF writes them
CMS_API std::span<const std::wstring_view> VideoSystemNames();       // the index is the camera's
CMS_API std::span<const std::wstring_view> StreamingCapabilities();  // ONVIF's elements
CMS_API std::span<const std::wstring_view> AudioEncodings();         // of parameter AudioSource.A0

// A row by its key (exactly as written there) or its id; nullptr when there is none.
CMS_API const stResolutionRow* FindResolution(std::wstring_view key);
CMS_API const stResolutionRow* FindResolution(std::int32_t id);

// The text shown to the user under a 50 Hz (PAL) or a 60 Hz (NTSC) system.
inline std::wstring_view DisplayText(const stResolutionRow& row, bool pal) {
  return pal ? row.pal : row.ntsc;
}

// Whether an index of VideoSystemNames is a 50 Hz system; false for any other number.
CMS_API bool IsPalSystem(int index);

}  // namespace cms
