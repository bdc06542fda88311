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

void RecordLists::BeginQuery() {
  presence_.BeginQuery();
  const bool sure = watch_.Collect(ended_);
  for (const int watch : ended_) {
    const auto found = watched_.find(watch);
    if (found != watched_.end()) {
      found->second->watch = FileWatch::kNone;
      found->second->known = false;
      watched_.erase(found);
    }
  }
  if (!sure) {
    for (const auto& [watch, list] : watched_) {
      list->watch = FileWatch::kNone;
    }
    watched_.clear();
  }
}

RecordLists::Folder* RecordLists::Listed(const std::string& path, bool& complete) {
  FileStatus status;
  Folder& folder = folders_[path];
  const bool present = io_.Status(path + "/.", status);
  const FileStamp stamp(status);
  if (present && folder.known && folder.stamp == stamp) {
    return &folder;
  }
  complete = present || IsMissing(errno);
  for (List& list : folder.lists) {
    Unwatch(list);
  }
  if (!present) {
    folders_.erase(path);
    return nullptr;
  }
  folder.stamp = stamp;
  complete = ListAnew(path, folder);
  folder.known = complete && stamp.IsReliable();
  folder.watchable = folder.known && FileWatch::SeesAll(path);
  return &folder;
}

bool RecordLists::ListAnew(const std::string& path, Folder& folder) {
  std::vector<List> lists;
  const bool complete = io_.List(path + "/", [&](std::string_view name, EntryKind kind) {
    if (kind != EntryKind::kFile) {
      List& list = lists.emplace_back();
      list.path = path + "/";
      list.path += name;
      list.path += "/RecordDB";
      list.stays = kind == EntryKind::kFolder;
    }
  });
  std::ranges::sort(lists, {}, &List::path);
  auto old = folder.lists.begin();
  for (List& list : lists) {
    while (old != folder.lists.end() && old->path < list.path) {
      ++old;
    }
    if (old != folder.lists.end() && old->path == list.path) {
      const bool stays = list.stays;
      list = std::move(*old);
      list.stays = stays;
    }
  }
  folder.lists = std::move(lists);
  return complete;
}

bool RecordLists::AskEach(const std::string& path, const RecordQuery& query) {
  bool complete = true;
  Folder* const folder = Listed(path, complete);
  if (folder != nullptr) {
    for (List& list : folder->lists) {
      complete = AskOne(*folder, list, query) && complete;
    }
  }
  return complete && presence_.IsSure();
}

bool RecordLists::AskOne(const Folder& folder, List& list, const RecordQuery& query) {
  if (list.watch == FileWatch::kNone) {
    Watch(folder, list);  // before its stamp is asked for: whatever happens from now on is told
    FileStatus status;
    if (!io_.Status(list.path, status)) {
      const bool missing = IsMissing(errno);
      Forget(list);
      return missing;
    }
    if (list.stamp != FileStamp(status)) {
      list.known = false;
      Unwatch(list);
    }
  }
  return (list.known && !NeedsFile(list, query)) || Read(list, query);
}

void RecordLists::Watch(const Folder& folder, List& list) {
  // What lies on another device is another file system's, which may be taken away from here.
  if (!list.known || !list.stays || !folder.watchable || list.stamp.device != folder.stamp.device) {
    return;
  }
  list.watch = watch_.Add(list.path);
  if (list.watch != FileWatch::kNone) {
    watched_[list.watch] = &list;
  }
}

void RecordLists::Unwatch(List& list) {
  if (list.watch != FileWatch::kNone) {
    watch_.Remove(list.watch);
    watched_.erase(list.watch);
    list.watch = FileWatch::kNone;
  }
}

void RecordLists::Forget(List& list) {
  Unwatch(list);
  list.known = false;
  list.entries = {};
}

bool RecordLists::Read(List& list, const RecordQuery& query) {
  presence_.BeginList();
  DatabaseFile file(SystemPath(list.path), kRecordSize, DatabaseAccess::kRead);
  FileStatus status;
  if (!file || !io_.Status(list.path, status)) {
    const bool missing = file ? IsMissing(errno) : file.Missing();
    Forget(list);
    return missing;
  }
  // Asked now that the file is open: it is the one that is remembered, or it is read anew.
  const FileStamp stamp(status);
  if (list.known && list.stamp == stamp) {
    return ReadSome(list, file, query);
  }
  Unwatch(list);
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

// Recorders wait for the databases' lock: it is held while records are copied, a block at a time,
// and not while a disk is asked for the recordings that they name.
bool RecordLists::ForEach(DatabaseFile& file, std::size_t from, const Visit& visit) {
  constexpr std::size_t kBlock = 256;
  std::vector<std::uint8_t> block;
  for (bool more = true; more; from += kBlock) {
    block.clear();
    {
      ScopeLock databases(RecordDatabaseLock());
      const bool read = file.ForEach(
          [&block](auto record) {
            block.insert(block.end(), record.begin(), record.end());
            return block.size() < kBlock * kRecordSize;
          },
          from);
      if (!read) {
        return false;
      }
    }
    more = block.size() == kBlock * kRecordSize;
    for (std::size_t at = 0; at < block.size(); at += kRecordSize) {
      if (!visit(std::span(block).subspan(at, kRecordSize))) {
        return true;
      }
    }
  }
  return true;
}

bool RecordLists::ReadSome(List& list, DatabaseFile& file, const RecordQuery& query) {
  std::size_t index = list.first;
  return ForEach(file, list.first, [&](std::span<const std::uint8_t> record) {
    Consider(list.entries[index], record, query);
    return ++index <= list.last && index < list.entries.size();
  });
}

bool RecordLists::ReadAll(List& list, DatabaseFile& file, const RecordQuery& query) {
  list.known = false;
  list.entries.clear();
  list.entries.reserve(list.stamp.size / kRecordSize);
  list.earliest = std::numeric_limits<std::int64_t>::max();
  list.latest = std::numeric_limits<std::int64_t>::min();
  return ForEach(file, 0, [&](std::span<const std::uint8_t> record) {
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
