#include "cms/recording/internal/record_text.h"

#include <algorithm>
#include <cwctype>
#include <limits>

namespace cms {

std::uint32_t SiteNumberOfRecording(std::wstring_view fileName) {
  constexpr std::wstring_view kPrefix = L"Rec_Site";
  if (!fileName.starts_with(kPrefix)) {
    return 0;
  }
  fileName.remove_prefix(kPrefix.size());
  while (!fileName.empty() &&
         (fileName[0] == L' ' || (fileName[0] >= L'\t' && fileName[0] <= L'\r'))) {
    fileName.remove_prefix(1);
  }
  const bool negative = fileName.starts_with(L'-');
  if (negative || fileName.starts_with(L'+')) {
    fileName.remove_prefix(1);
  }
  std::int64_t number = 0;
  for (const wchar_t c : fileName) {
    if (c < L'0' || c > L'9') {
      break;
    }
    number = std::min<std::int64_t>(number * 10 + (c - L'0'), std::int64_t{1} << 31);
  }
  number = std::clamp<std::int64_t>(negative ? -number : number,
                                    std::numeric_limits<std::int32_t>::min(),
                                    std::numeric_limits<std::int32_t>::max());
  return static_cast<std::uint32_t>(number);
}

}  // namespace cms
