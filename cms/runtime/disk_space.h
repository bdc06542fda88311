// Free space, remembered for a minute for each drive.
#pragma once

#include <cstdint>

#include "cms/runtime/api.h"

namespace cms {

// Bytes free to the caller, in all, and free in all, of the volume that `path` lies on (nullptr:
// the working directory). Each output may be nullptr. Non-zero on success.
//
// A path that names a drive ("C" or "C:", an upper-case letter) is asked for at most once in a
// little more than a minute, each thread having its own idea of "little" so that many do not ask at
// once; a failed answer is never remembered. Every other path, "c:" among them, is asked for every
// time. Any thread may call it; it may block on the file system.
CMS_API int DiskFreeSpace(const wchar_t* path, std::uint64_t* freeToCaller,
                          std::uint64_t* totalBytes, std::uint64_t* totalFree);

}  // namespace cms
