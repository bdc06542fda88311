#include "cms/recording/internal/database_maintenance.h"

#include <algorithm>
#include <cstddef>
#include <string>
#include <type_traits>

#include "cms/recording/data_root.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/folder_span_file.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/record_db_info.h"
#include "cms/runtime/wide_text.h"

namespace cms {

namespace {

constexpr std::size_t kRecordSize = sizeof(FX::FX_RecordDBInfo);
constexpr std::size_t kNameSize = 520;     // the file name's field, at the record's start
constexpr std::size_t kTimesOffset = 720;  // the start time, and the end time behind it

struct Times {
  std::int64_t start = 0;
  std::int64_t end = 0;
};

Times TimesOf(std::span<const std::uint8_t> record) {
  return RecordFrom<Times>(record.subspan(kTimesOffset, sizeof(Times)));
}

// Compares in the records' own encoding: a list of many records is searched at the speed of
// reading.
class NameMatcher {
 public:
  explicit NameMatcher(std::wstring_view name) {
    encoded_.resize(4 * name.size() + 2);
    StoreUtf16(name, encoded_);
    encoded_.resize(LengthOf(encoded_));
  }

  bool Matches(std::span<const std::uint8_t> record) const {
    const auto text = record.first(LengthOf(record.first(kNameSize)));
    if (text.size() < encoded_.size()) {
      return false;
    }
    for (std::size_t at = 0; at <= text.size() - encoded_.size(); at += 2) {
      if (std::memcmp(text.data() + at, encoded_.data(), encoded_.size()) == 0) {
        return true;
      }
    }
    return false;
  }

 private:
  static std::size_t LengthOf(std::span<const std::uint8_t> field) {
    std::size_t length = 0;
    while (length + 1 < field.size() && (field[length] != 0 || field[length + 1] != 0)) {
      length += 2;
    }
    return length;
  }

  std::vector<std::uint8_t> encoded_;
};

// Every record counts, also with times that are not set. False when reading failed.
bool ReadTimes(DatabaseFile& list, Times& times) {
  bool first = true;
  return list.ForEach([&](auto record) {
    const Times own = TimesOf(record);
    times.start = first ? own.start : std::min(times.start, own.start);
    times.end = first ? own.end : std::max(times.end, own.end);
    first = false;
    return true;
  });
}

DatabaseFile OpenList(std::wstring_view folder, DatabaseAccess access) {
  return {RecordListPath(folder), kRecordSize, access};
}

// Not while another process writes into it.
bool RemoveFile(const std::wstring& systemPath) {
  const DatabaseFile hold(systemPath, 1, DatabaseAccess::kChange);
  return CurrentFileIo().Remove(PathInData(systemPath)) == 0;
}

}  // namespace

bool FolderTimes(std::wstring_view folder, std::int64_t& start, std::int64_t& end) {
  ScopeLock databases(RecordDatabaseLock());
  auto list = OpenList(folder, DatabaseAccess::kRead);
  Times times;
  if (!list || !ReadTimes(list, times)) {
    return false;
  }
  start = times.start;
  end = times.end;
  return true;
}

bool MakeFolderSpan(std::wstring_view folder) {
  ScopeLock databases(RecordDatabaseLock());
  // Held while the list is read: a recorder that appends meanwhile widens the span behind us.
  FolderSpanFile file(FolderSpanPath(folder), DatabaseAccess::kCreate);
  auto list = OpenList(folder, DatabaseAccess::kRead);
  Times times;
  if (!file || (list ? !ReadTimes(list, times) : !list.Missing())) {
    return false;
  }
  FX::FX_RecSubFolderDBInfo span;
  span.SetStartTime(times.start);
  span.SetEndTime(times.end);
  return file.Write(span);
}

bool RemoveFolderSpan(std::wstring_view folder) {
  ScopeLock databases(RecordDatabaseLock());
  return RemoveFile(FolderSpanPath(folder));
}

bool NarrowFolderSpan(std::wstring_view folder, std::int64_t start, std::int64_t end) {
  ScopeLock databases(RecordDatabaseLock());
  FolderSpanFile file(FolderSpanPath(folder), DatabaseAccess::kChange);
  FX::FX_RecSubFolderDBInfo span;
  if (!file || !file.Read(span)) {
    return false;
  }
  if (start != 0 && start > span.GetStartTime()) {
    span.ForceSetStartTime(start);
  }
  if (end != 0 && end < span.GetEndTime()) {
    span.ForceSetEndTime(end);
  }
  return file.Write(span);
}

bool ModifyRecordTimes(std::wstring_view folder, std::wstring_view name, std::int64_t start,
                       std::int64_t end) {
  ScopeLock databases(RecordDatabaseLock());
  auto list = OpenList(folder, DatabaseAccess::kChange);
  if (!list) {
    return false;
  }
  const NameMatcher matcher(name);
  std::uint64_t offset = 0;
  bool changed = false;
  bool written = true;
  const bool read = list.ForEach([&](auto record) {
    if (matcher.Matches(record)) {
      Times times = TimesOf(record);
      times.start = start != 0 ? start : times.start;
      times.end = end != 0 ? end : times.end;
      written = list.Overwrite(offset + kTimesOffset, BytesOf(times));
      changed = true;
    }
    offset += kRecordSize;
    return written;
  });
  return read && written && list.CutTornTail() && changed;
}

bool AddRecord(std::wstring_view folder, std::wstring_view name, std::wstring_view newFileName,
               std::int64_t start, std::int64_t end) {
  ScopeLock databases(RecordDatabaseLock());
  auto list = OpenList(folder, DatabaseAccess::kCreate);
  if (!list) {
    return false;
  }
  const NameMatcher matcher(name);
  FX::FX_RecordDBInfo original;
  if (!list.ForEach([&](auto record) {
        const bool matches = matcher.Matches(record);
        if (matches) {
          original = RecordFrom<FX::FX_RecordDBInfo>(record);
        }
        return !matches;
      })) {
    original = {};
  }
  const std::wstring path = std::wstring(folder) + L"\\" + std::wstring(newFileName);
  FX::FX_RecordDBInfo added(path.c_str(), original.GetAddressW().c_str(),
                            original.GetSiteNameW().c_str(), original.GetPort(),
                            original.GetSiteNumber(), 0);
  added.SetStartTime(start);
  added.SetEndTime(end);
  return list.Append(BytesOf(added));
}

bool RemoveRecord(std::wstring_view folder, std::wstring_view name) {
  ScopeLock databases(RecordDatabaseLock());
  auto list = OpenList(folder, DatabaseAccess::kChange);
  if (!list) {
    return false;
  }
  const NameMatcher matcher(name);
  bool removed = false;
  const bool done = list.Filter([&](auto record) {
    const Times times = TimesOf(record);
    const bool remove = !removed && times.start != 0 && times.end != 0 && matcher.Matches(record);
    removed = removed || remove;
    return !remove;
  });
  return done && removed;
}

bool RemoveRecordList(std::wstring_view folder) {
  ScopeLock databases(RecordDatabaseLock());
  return RemoveFile(RecordListPath(folder)) && RemoveFile(FolderSpanPath(folder));
}

bool RemoveRecords(std::wstring_view folder,
                   const std::function<bool(std::wstring_view file)>& isOne) {
  ScopeLock databases(RecordDatabaseLock());
  auto list = OpenList(folder, DatabaseAccess::kChange);
  return list ? list.Filter([&](auto record) { return !isOne(LoadUtf16(record.first(kNameSize))); })
              : list.Missing();
}

bool RemoveEmptyRecordList(std::wstring_view folder) {
  ScopeLock databases(RecordDatabaseLock());
  {
    // Held, so that no other process appends to what is about to go.
    auto list = OpenList(folder, DatabaseAccess::kChange);
    bool empty = true;
    // Of a list that cannot be read nothing is known.
    const bool read = list && list.ForEach([&empty](auto) {
      empty = false;
      return false;
    });
    if (!read || !empty || CurrentFileIo().Remove(PathInData(RecordListPath(folder))) != 0) {
      return false;
    }
  }
  RemoveFile(FolderSpanPath(folder));
  return true;
}

}  // namespace cms
