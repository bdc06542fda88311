// DatabaseFile, one hold of a flat database file: how all of them are read, extended and rewritten.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "cms/runtime/file_io.h"

namespace cms {

enum class DatabaseAccess {
  kRead,    // of what is there, whoever holds the lock
  kChange,  // of an existing file
  kCreate,  // of a file that is made when it is missing
};

// A file that is nothing but records of one size. What every database promises rests on these
// rules:
//
// 1. A tail that is no whole record (a process or a disk died in the middle of it) is ignored by
//    readers, and overwritten by the next record appended: records never shift.
// 2. Appending and changing in place write the one record and nothing else. An append that fails is
//    taken back, so the records before it stay as they were.
// 3. Removing records writes a new file beside the old one ("<name>.tmp"), makes it durable and
//    puts it in the old one's place in one step. A failure leaves the old file.
// 4. Processes that change a file take turns by an exclusive advisory lock on it. A lock that
//    somebody keeps for longer than about two seconds is no longer respected by appends and changes
//    in place, so that recording goes on; removing records is refused then. Readers never wait:
//    what they open is whole records at any moment.
//
// Threads of this process take turns by the databases' own locks (database_locks.h), which the
// caller holds. One object is for one thread.
class DatabaseFile {
 public:
  // A relative path is one in the data root (PathInData).
  DatabaseFile(std::wstring_view systemPath, std::size_t recordSize, DatabaseAccess access,
               const std::string& dataRoot = {});
  DatabaseFile(const DatabaseFile&) = delete;
  DatabaseFile& operator=(const DatabaseFile&) = delete;

  explicit operator bool() const { return file_ && *file_; }
  bool Missing() const { return missing_; }  // not open because there is no such file

  // Calls `visit` with each record from the given one on, until it returns false. True unless
  // reading failed; what was visited until then is right, but may not be all.
  template <typename Visit>
  bool ForEach(Visit visit, std::uint64_t from = 0) {
    Rewind(from);
    for (auto block = NextBlock(); !block.empty(); block = NextBlock()) {
      for (std::size_t at = 0; at < block.size(); at += recordSize_) {
        if (!visit(block.subspan(at, recordSize_))) {
          return true;
        }
      }
    }
    return !readFailed_;
  }

  // The bytes behind the last whole record that ForEach met; after a complete run of it.
  std::uint64_t TornBytes() const { return tornBytes_; }

  // One record. False when it is not there as a whole.
  bool ReadAt(std::uint64_t offset, std::span<std::uint8_t> record);
  std::uint64_t WholeSize();  // of the whole records, 0 when it cannot be told

  // The following are for kChange and kCreate. False when it failed.
  bool Append(std::span<const std::uint8_t> record);
  bool Overwrite(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  bool CutTo(std::uint64_t size);
  bool CutTornTail();

  // Removes the records for which `keep` returns false, and a torn tail. `keep` is asked once for
  // each record, in order. Ends the hold when it removed something.
  template <typename Keep>
  bool Filter(Keep keep) {
    std::vector<bool> kept;
    bool complete = true;
    const bool read = ForEach([&](auto record) {
      kept.push_back(keep(record));
      complete = complete && kept.back();
      return true;
    });
    if (!read || complete) {
      return read && CutTornTail();
    }
    Replacement replacement(*this);
    std::size_t index = 0;
    const bool copied = ForEach([&](auto record) {
      const std::size_t at = index++;
      return (at < kept.size() && !kept[at]) || replacement.Add(record);
    });
    return copied && replacement.Install();
  }

 private:
  // The new file of rule 3; gone again unless it was installed.
  class Replacement {
   public:
    explicit Replacement(DatabaseFile& old);
    ~Replacement();
    bool Add(std::span<const std::uint8_t> record);
    bool Install();

   private:
    bool Flush();
    DatabaseFile& old_;
    const std::string path_;
    ScopedFile file_;
    std::vector<std::uint8_t> buffer_;
    bool installed_ = false;
  };

  void Open(DatabaseAccess access);
  bool TryOpen(unsigned flags);
  bool WriteAt(std::uint64_t offset, std::span<const std::uint8_t> bytes);
  void Rewind(std::uint64_t record);
  std::span<const std::uint8_t> NextBlock();

  FileIo& io_;
  const std::string path_;
  const std::size_t recordSize_;
  std::optional<ScopedFile> file_;
  bool missing_ = false;
  bool locked_ = false;
  std::vector<std::uint8_t> buffer_;
  std::uint64_t position_ = 0;
  std::uint64_t tornBytes_ = 0;
  bool readFailed_ = false;
};

}  // namespace cms
