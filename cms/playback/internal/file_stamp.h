// FileStamp: whether a file or a folder is still as it was when it was read.
#pragma once

#include <cerrno>
#include <cstdint>

#include "cms/runtime/clock.h"
#include "cms/runtime/file_io.h"

namespace cms {

// Whether an operation failed because there is nothing of that name.
inline bool IsMissing(int error) {
  return error == ENOENT || error == ENOTDIR || error == ENAMETOOLONG || error == ELOOP;
}

// Taken before the reading. Whatever is written into a file, or created, removed and renamed in a
// folder, changes its stamp.
struct FileStamp {
  std::uint64_t device = 0;
  std::uint64_t inode = 0;
  std::uint64_t size = 0;
  std::uint64_t modified = 0;
  std::uint64_t changed = 0;

  FileStamp() = default;
  explicit FileStamp(const FileStatus& status)
      : device(status.device),
        inode(status.inode),
        size(status.size),
        modified(status.modifiedNanoseconds),
        changed(status.changedNanoseconds) {}

  bool operator==(const FileStamp&) const = default;

  // File systems count time in steps of up to two seconds: another change within the step of the
  // last one leaves no trace. So a stamp tells nothing unless it was old when it was taken.
  bool IsReliable() const {
    constexpr std::int64_t kStep = 3;
    const auto newest =
        static_cast<std::int64_t>((changed > modified ? changed : modified) / 1'000'000'000);
    return newest + kStep <= WallSeconds();
  }
};

}  // namespace cms
