// DatabaseFollower, a database that is looked at again and again while others append to it.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "cms/recording/data_root.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/file_io.h"

namespace cms {

// Each look reads what came since the last one. It begins anew when another file took the place of
// the one that was looked at, or records of it went; the open file keeps its inode from being
// another's. What is changed in place meanwhile is not seen. One thread.
template <typename Record>
class DatabaseFollower {
 public:
  // `path` as DatabaseFile takes it; `lock`: the database's.
  DatabaseFollower(std::wstring path, CMSCritical& lock, std::string dataRoot)
      : path_(std::move(path)), lock_(lock), dataRoot_(std::move(dataRoot)) {}

  // Calls `begin` when what earlier looks took does not count any more, then `take` with each
  // record that is new.
  template <typename Begin, typename Take>
  DatabaseState Look(Begin begin, Take take) {
    ScopeLock hold(lock_);
    if (!IsTheSame()) {
      begin();
      taken_ = 0;
      const auto before = Status();
      file_.emplace(path_, sizeof(Record), DatabaseAccess::kRead, dataRoot_);
      const auto behind = Status();
      status_ = before && behind && IsOne(*before, *behind) ? behind : std::nullopt;
    }
    if (!*file_) {
      return file_->Missing() ? DatabaseState::kMissing : DatabaseState::kUnreadable;
    }
    const bool read = file_->ForEach(
        [&](auto record) {
          take(RecordFrom<Record>(record));
          ++taken_;
          return true;
        },
        taken_);
    return read ? DatabaseState::kRead : DatabaseState::kUnreadable;
  }

 private:
  static bool IsOne(const FileStatus& a, const FileStatus& b) {
    return a.device == b.device && a.inode == b.inode;
  }
  std::optional<FileStatus> Status() const {
    FileStatus status;
    return CurrentFileIo().Status(PathInData(path_, dataRoot_), status) ? std::optional(status)
                                                                        : std::nullopt;
  }
  bool IsTheSame() {
    const auto now = Status();
    return status_ && now && IsOne(*status_, *now) && file_->WholeSize() >= taken_ * sizeof(Record);
  }

  const std::wstring path_;
  CMSCritical& lock_;
  const std::string dataRoot_;
  std::optional<DatabaseFile> file_;
  std::optional<FileStatus> status_;  // of what file_ has open
  std::uint64_t taken_ = 0;
};

}  // namespace cms
