#include "cms/exports/file_exports.h"

#include "cms/runtime/disk_space.h"

int GetDiskFreeSpaceEx2(const wchar_t* path, std::uint64_t* freeToCaller, std::uint64_t* totalBytes,
                        std::uint64_t* totalFree) {
  return cms::DiskFreeSpace(path, freeToCaller, totalBytes, totalFree);
}
