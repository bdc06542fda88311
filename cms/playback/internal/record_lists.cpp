#include "cms/playback/internal/record_lists.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>

#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/record_db_info.h"
#include "cms/runtime/native_path.h"

namespace cms {

namespace {

constexpr std::size_t kRecordSize = sizeof(FX_RecordDBInfo);
constexpr std::size_t kNameSize = 520;     // the file name's field, at the record's start
constexpr std::size_t kStartOffset = 720;  // the start time
constexpr std::size_t kEndOffset = 728;    // and the end time

template <typename Entry>
bool CanFit(const Entry& entry) {
  return entry.start != 0 && entry.end != 0 && entry.start < entry.end;
}

template <typename Entry>
bool Fits(const Entry& entry, const RecordQuery& query) {
  return CanFit(entry) && entry.start <= query.to && entry.end >= query.from;
}

}  // namespace

const std::vector<std::string>* RecordLists::ListsIn(const std::string& folder, bool& complete) {
  FileStatus status;
  if (!io_.Status(folder + "/.", status)) {
    complete = IsMissing(errno);
    folders_.erase(folder);
    return nullptr;
  }
  const FileStamp stamp(status);
  Folder& known = folders_[folder];
  if (known.known && known.stamp == stamp) {
    return &known.lists;
  }
  known.stamp = stamp;
  known.known = stamp.IsReliable();
  std::vector<std::string> lists;
  complete = io_.List(folder + "/", [&](std::string_view name, EntryKind kind) {
    std::string path = folder + "/";
    path += name;
    if (kind == EntryKind::kAsk) {
      known.known = false;  // what a link leads to may change without the folder
      kind =
          io_.Status(path, status) && status.is_directory ? EntryKind::kFolder : EntryKind::kFile;
    }
    if (kind == EntryKind::kFolder) {
      lists.push_back(path + "/RecordDB");
    }
  });
  known.known = known.known && complete;
  std::sort(lists.begin(), lists.end());
  for (const std::string& old : known.lists) {
    if (!std::binary_search(lists.begin(), lists.end(), old)) {
      lists_.erase(old);
    }
  }
  known.lists = std::move(lists);
  return &known.lists;
}

bool RecordLists::AskEach(const std::string& folder, const RecordQuery& query) {
  bool complete = true;
  const std::vector<std::string>* const lists = ListsIn(folder, complete);
  if (lists != nullptr) {
    for (const std::string& path : *lists) {
      complete = AskOne(path, query) && complete;
    }
  }
  return complete && presence_.IsSure();
}

bool RecordLists::AskOne(const std::string& path, const RecordQuery& query) {
  FileStatus status;
  if (!io_.Status(path, status)) {
    const bool missing = IsMissing(errno);
    lists_.erase(path);
    return missing;
  }
  FileStamp stamp(status);
  List& list = lists_[path];
  if (list.known && list.stamp == stamp && !NeedsFile(list, query)) {
    return true;
  }
  ScopeLock databases(RecordDatabaseLock());
  DatabaseFile file(SystemPath(path), kRecordSize, DatabaseAccess::kRead);
  if (!file || !io_.Status(path, status)) {
    const bool missing = file ? IsMissing(errno) : file.Missing();
    lists_.erase(path);
    return missing;
  }
  // Once more, now that the file is open: it is the one that is remembered, or it is read anew.
  stamp = FileStamp(status);
  if (list.known && list.stamp == stamp) {
    return ReadSome(list, file, query);
  }
  list.stamp = stamp;
  const bool read = ReadAll(list, file, query);
  list.known = read && stamp.IsReliable();
  return read;
}

// Answers from memory what can be; the records that have to be read lie between list.first and
// list.last then. False when there are none.
bool RecordLists::NeedsFile(List& list, const RecordQuery& query) {
  list.first = list.entries.size();
  if (list.latest < query.from || list.earliest > query.to) {
    return false;
  }
  for (std::size_t i = 0; i < list.entries.size(); ++i) {
    const Entry& entry = list.entries[i];
    if (!Fits(entry, query) || !query.wanted(entry.start)) {
      continue;
    }
    const bool holds = presence_.StillHolds(entry.answer);
    if (holds && !entry.answer.Exists()) {
      continue;
    }
    if (holds && !query.withBytes) {
      query.found(entry.start, {});
      continue;
    }
    list.first = std::min(list.first, i);
    list.last = i;
  }
  return list.first < list.entries.size();
}

void RecordLists::Consider(Entry& entry, std::span<const std::uint8_t> record,
                           const RecordQuery& query) {
  if (!Fits(entry, query) || !query.wanted(entry.start)) {
    return;
  }
  if (!presence_.StillHolds(entry.answer)) {
    entry.answer = presence_.Ask(record.first(kNameSize));
  }
  if (entry.answer.Exists()) {
    query.found(entry.start, record);
  }
}

bool RecordLists::ReadSome(List& list, DatabaseFile& file, const RecordQuery& query) {
  std::size_t index = list.first;
  return file.ForEach(
      [&](auto record) {
        Consider(list.entries[index], record, query);
        return ++index <= list.last && index < list.entries.size();
      },
      list.first);
}

bool RecordLists::ReadAll(List& list, DatabaseFile& file, const RecordQuery& query) {
  list.known = false;
  list.entries.clear();
  list.entries.reserve(list.stamp.size / kRecordSize);
  list.earliest = std::numeric_limits<std::int64_t>::max();
  list.latest = std::numeric_limits<std::int64_t>::min();
  return file.ForEach([&](auto record) {
    Entry entry;
    entry.start = RecordFrom<std::int64_t>(record.subspan(kStartOffset, sizeof(std::int64_t)));
    entry.end = RecordFrom<std::int64_t>(record.subspan(kEndOffset, sizeof(std::int64_t)));
    Consider(entry, record, query);
    if (CanFit(entry)) {
      list.earliest = std::min(list.earliest, entry.start);
      list.latest = std::max(list.latest, entry.end);
    }
    list.entries.push_back(entry);
    return true;
  });
}

}  // namespace cms
