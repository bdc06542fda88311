// RecordingInventory: every recording of a data root, as its folders and record lists tell.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cms/runtime/file_io.h"

namespace cms {

// A .drv file with its index.
struct StoredRecording {
  std::uint32_t folder = 0;  // its place among the folders
  std::uint32_t site = 0;
  std::string name;         // of the .drv file, in its folder
  std::uint64_t bytes = 0;  // of both files
  std::int64_t start = 0;   // seconds since 1970-01-01 UTC
  std::int64_t end = 0;
  bool listed = false;  // a record names it; else its times are those of its index or its name
  std::int64_t modified = 0;  // seconds since 1970-01-01 UTC
};

// A record whose .drv file is gone: a removal that was not ended, or somebody removed the file.
struct LostRecord {
  std::uint32_t site = 0;
  std::string name;
  std::int64_t start = 0;
  std::int64_t end = 0;
};

struct InventoryFolder {
  std::string path;          // native, absolute
  std::wstring system;       // as the system writes it
  bool removable = false;    // a folder of a folder of the folder list: it may go when it is empty
  std::uint64_t device = 0;  // of the file system; device and inode together name one folder
  std::uint64_t inode = 0;
  std::vector<LostRecord> lost;
  std::vector<std::string> orphans;  // indexes without a recording, for longer than a day; paths
};

// Read once, by folder listings and record lists; recordings are not opened, but the indexes of
// those without a record. Waits for the disk, and holds the record databases' lock while a list is
// read. One thread at a time.
class RecordingInventory {
 public:
  // `root`: native and absolute, checked by CheckDataRoot. `moved`: with the folders of the folder
  // list.
  RecordingInventory(FileIo& io, std::string root, bool moved = true);

  const std::string& Root() const { return root_; }
  const std::vector<InventoryFolder>& Folders() const { return folders_; }
  const std::vector<StoredRecording>& Recordings() const { return recordings_; }  // oldest first
  std::string PathOf(const StoredRecording& recording) const {
    return folders_[recording.folder].path + "/" + recording.name;
  }
  // Folders and lists that are there and could not be read: what is in them was left out.
  const std::vector<std::string>& Unreadable() const { return unreadable_; }
  // False when there may be others, in folders that were not asked, are away or cannot be read.
  bool IsWhole() const { return isWhole_ && unreadable_.empty(); }

 private:
  void ReadParent(const std::string& path);
  void ReadFolder(const std::string& path, bool removable);
  void AddTimes(StoredRecording& recording) const;
  bool IsGone(const std::wstring& recorded) const;

  FileIo& io_;
  const std::string root_;
  std::vector<InventoryFolder> folders_;
  std::vector<StoredRecording> recordings_;
  std::vector<std::string> unreadable_;
  bool isWhole_ = true;
};

// Empty when `root` can be one: an absolute path to a folder that holds "recordings". Else why not.
std::string CheckDataRoot(FileIo& io, std::string_view root);

// A database of the data root, as the system writes paths: "EventList0" and others.
std::wstring RootDatabase(const std::string& root, std::string_view name);

}  // namespace cms
