// RecordLists: the record lists of recording folders, remembered for as long as they do not change.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "cms/playback/internal/file_presence.h"
#include "cms/playback/internal/file_stamp.h"
#include "cms/playback/internal/file_watch.h"
#include "cms/runtime/file_io.h"

namespace cms {

class DatabaseFile;

// What is looked for in the lists.
struct RecordQuery {
  std::int64_t from = 0;  // seconds, both inclusive
  std::int64_t to = 0;
  // Whether a record that fits the interval is needed, before its file is looked for.
  std::function<bool(std::int64_t start)> wanted;
  // A record whose file is there. Its bytes when `withBytes` is set; nothing otherwise.
  std::function<void(std::int64_t start, std::span<const std::uint8_t> record)> found;
  bool withBytes = false;
};

// What a list says is read whole once: of each record its times and whether its file is there stay
// in memory. Later queries read those records that they want the bytes of. Every answer is one that
// reading everything anew would give. One thread at a time.
//
// Whether a list is still the one that was read:
// 1. A list that was asked for twice and did not change is watched, where the kernel sees all that
//    could change it. Until it tells of a change, nobody asks.
// 2. A watch is on a file, whatever leads to it. So the folder of a list must be the one that it
//    was when the watch was added: once what holds the folders has changed, their watches are
//    removed.
// 3. Any other list is asked for its stamp.
class RecordLists {
 public:
  RecordLists(FileIo& io, const std::string& dataRoot) : io_(io), presence_(io, dataRoot) {}

  void BeginQuery();

  // Asks the list of each folder inside a native one, in the order of their names. False when
  // something that is there could not be read.
  bool AskEach(const std::string& folder, const RecordQuery& query);

 private:
  struct Entry {
    std::int64_t start = 0;
    std::int64_t end = 0;
    FilePresence::Answer answer;
  };
  struct List {
    std::string path;    // native
    bool stays = false;  // no link leads to it
    bool known = false;  // the entries are what a file with this stamp says
    int watch = FileWatch::kNone;
    FileStamp stamp;
    std::vector<Entry> entries;
    std::size_t first = 0;  // what NeedsFile found
    std::size_t last = 0;
    std::int64_t earliest = std::numeric_limits<std::int64_t>::max();  // of all that can fit
    std::int64_t latest = std::numeric_limits<std::int64_t>::min();
  };
  struct Folder {
    FileStamp stamp;
    bool known = false;
    bool watchable = false;
    std::vector<List> lists;  // that may be there, by their paths
  };

  Folder* Listed(const std::string& path, bool& complete);
  bool ListAnew(const std::string& path, Folder& folder);
  bool AskOne(const Folder& folder, List& list, const RecordQuery& query);
  void Watch(const Folder& folder, List& list);
  void Unwatch(List& list);
  void Forget(List& list);
  bool NeedsFile(List& list, const RecordQuery& query);
  bool Read(List& list, const RecordQuery& query);
  using Visit = std::function<bool(std::span<const std::uint8_t> record)>;
  static bool ForEach(DatabaseFile& file, std::size_t from, const Visit& visit);
  bool ReadAll(List& list, DatabaseFile& file, const RecordQuery& query);
  bool ReadSome(List& list, DatabaseFile& file, const RecordQuery& query);
  void Consider(Entry& entry, std::span<const std::uint8_t> record, const RecordQuery& query);

  FileIo& io_;
  FilePresence presence_;
  std::unordered_map<std::string, Folder> folders_;
  FileWatch watch_;
  std::unordered_map<int, List*> watched_;
  std::vector<int> ended_;
};

}  // namespace cms
