#include "cms/runtime/native_path.h"

#include <algorithm>

#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

bool BeginsWithDrive(std::wstring_view path) {
  if (path.size() < 2 || path[1] != L':') {
    return false;
  }
  const wchar_t letter = path[0];
  return (letter >= L'A' && letter <= L'Z') || (letter >= L'a' && letter <= L'z');
}

}  // namespace

std::string NativePath(std::wstring_view systemPath) {
  if (BeginsWithDrive(systemPath)) {
    systemPath.remove_prefix(2);
    if (systemPath.empty()) {
      return "/";
    }
  }
  std::string native = Utf8FromWide(systemPath);
  std::replace(native.begin(), native.end(), '\\', '/');
  return native;
}

std::wstring SystemPath(std::string_view nativePath) {
  std::wstring system = WideFromUtf8(nativePath);
  std::replace(system.begin(), system.end(), L'/', L'\\');
  return system;
}

SplitSystemPath SplitAtLastSeparator(std::wstring_view path) {
  const std::size_t at = path.find_last_of(L"\\/");
  if (at == std::wstring_view::npos) {
    return {{}, path, false};
  }
  return {path.substr(0, at), path.substr(at + 1), true};
}

}  // namespace cms
