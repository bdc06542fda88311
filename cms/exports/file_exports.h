// Exported questions about disks.
#pragma once

#include <cstdint>

#include "cms/runtime/api.h"

extern "C" {

// Bytes free to the caller, in all, and free in all, of the volume that `path` lies on; each output
// may be nullptr. Non-zero on success. "C:" (an upper-case letter) is asked for at most once in a
// little more than a minute, any other path every time. Any thread may call it.
CMS_API int GetDiskFreeSpaceEx2(const wchar_t* path, std::uint64_t* freeToCaller,
                                std::uint64_t* totalBytes, std::uint64_t* totalFree);

}  // extern "C"
