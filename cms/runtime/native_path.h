// The system's paths and the platform's: the only place that knows both.
#pragma once

#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

// The system's paths are wide texts whose parts are separated by "\"; records store them so. "/" is
// accepted as a separator as well. Any thread may call these.

// The native path of a system path: every "\" is a "/", a leading drive ("C:") is dropped, and a
// drive alone is "/". "..\EventList0" stays relative to the working directory. UTF-8.
CMS_API std::string NativePath(std::wstring_view systemPath);

// The system path of a native path: every "/" is a "\". No drive is added, so that NativePath of
// the result is the native path again (a native name that itself contains a "\" excepted).
CMS_API std::wstring SystemPath(std::string_view nativePath);

struct SplitSystemPath {
  std::wstring_view folder;  // in front of the last separator; empty when there is none
  std::wstring_view name;    // behind it
  bool hasFolder = false;    // tells "\name" (in the root) from "name"
};

// Splits at the last separator; the parts are views into `path`.
CMS_API SplitSystemPath SplitAtLastSeparator(std::wstring_view path);

}  // namespace cms
