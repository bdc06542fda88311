// How the files of a recording are named.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// The longest path that a record holds, in 16-bit characters.
inline constexpr std::size_t kLongestRecordedPath = 259;

// The path of the index that belongs to a data file: the extension of its name becomes "idx". Empty
// when that is the path itself, so that an index is never taken for its own data file.
CMS_API std::wstring IdxPathOf(std::wstring_view drvPath);

// The name of the next file of the same recording: the decimal number between the last "_" and the
// last "." grows by one (an unsigned 64-bit number: the largest is followed by 0). A text there
// that is no number counts as 0; digits in front of other characters count alone. Nothing when the
// name has no such place.
CMS_API std::optional<std::wstring> NextDrvFilename(std::wstring_view name);

// The site number of a name like "Rec_Site12_20240229.drv" (no folder in front); nothing for
// others. What follows the number does not count; the number may carry a sign or follow blanks. Of
// one that an int cannot hold, the nearest that it can.
CMS_API std::optional<int> SiteNumberOf(std::wstring_view name);

// "20240229235959" for a time in seconds since 1970-01-01 UTC, in local time.
CMS_API std::wstring RecordingStamp(std::int64_t seconds);

}  // namespace cms
