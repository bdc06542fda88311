#include "cms/recording/recording_names.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <cwchar>
#include <limits>

#include "cms/runtime/native_path.h"

namespace cms {
namespace {

constexpr std::wstring_view kSitePrefix = L"Rec_Site";
constexpr std::wstring_view kIdxExtension = L".idx";

bool IsDigit(wchar_t c) {
  return c >= L'0' && c <= L'9';
}

}  // namespace

std::wstring IdxPathOf(std::wstring_view drvPath) {
  const std::wstring_view name = SplitAtLastSeparator(drvPath).name;
  const std::size_t dot = name.rfind(L'.');
  const std::size_t extension = dot == std::wstring_view::npos ? 0 : name.size() - dot;
  std::wstring path(drvPath.substr(0, drvPath.size() - extension));
  path += kIdxExtension;
  return name.empty() || path == drvPath ? std::wstring() : path;
}

std::optional<std::wstring> NextDrvFilename(std::wstring_view name) {
  const std::size_t underscore = name.rfind(L'_');
  const std::size_t dot = name.rfind(L'.');
  if (underscore == std::wstring_view::npos || dot == std::wstring_view::npos || dot < underscore) {
    return std::nullopt;
  }
  // A number too large to be one counts as the largest.
  std::uint64_t number = 0;
  for (std::size_t i = underscore + 1; i < dot && IsDigit(name[i]); ++i) {
    if (__builtin_mul_overflow(number, 10u, &number) ||
        __builtin_add_overflow(number, static_cast<unsigned>(name[i] - L'0'), &number)) {
      number = UINT64_MAX;
      break;
    }
  }
  std::wstring next(name.substr(0, underscore + 1));
  next += std::to_wstring(number + 1);
  next += name.substr(dot);
  return next;
}

std::optional<int> SiteNumberOf(std::wstring_view name) {
  if (!name.starts_with(kSitePrefix)) {
    return std::nullopt;
  }
  name.remove_prefix(kSitePrefix.size());
  name.remove_prefix(std::min(name.find_first_not_of(L" \t\n\v\f\r"), name.size()));
  const bool negative = name.starts_with(L'-');
  if (negative || name.starts_with(L'+')) {
    name.remove_prefix(1);
  }
  if (name.empty() || name[0] < L'0' || name[0] > L'9') {
    return std::nullopt;
  }
  std::int64_t number = 0;
  for (const wchar_t c : name) {
    if (c < L'0' || c > L'9') {
      break;
    }
    number = std::min(number * 10 + (c - L'0'), std::int64_t{1} << 31);
  }
  return static_cast<int>(std::clamp<std::int64_t>(negative ? -number : number,
                                                   std::numeric_limits<int>::min(),
                                                   std::numeric_limits<int>::max()));
}

std::wstring RecordingStamp(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  wchar_t stamp[32];
  if (localtime_r(&time, &local) == nullptr) {
    return {};
  }
  return {stamp, std::wcsftime(stamp, std::size(stamp), L"%Y%m%d%H%M%S", &local)};
}

}  // namespace cms
