// FilePresence: whether the files that records name are there, asked for folder by folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "cms/playback/internal/file_stamp.h"
#include "cms/runtime/file_io.h"

namespace cms {

// A folder is listed once in a query, which is much cheaper than asking for each of its files, and
// an answer holds for as long as the folder does not change. One thread at a time.
class FilePresence {
 public:
  // An answer to keep beside the record, 8 bytes.
  struct Answer {
    std::uint32_t folder = 0;     // 0: not to be kept
    std::uint32_t knowledge = 0;  // version of the folder's content, and whether the file is there
    bool Exists() const { return (knowledge & 1) != 0; }
  };

  // Relative paths of records are in the data root.
  FilePresence(FileIo& io, std::string dataRoot)
      : io_(io), dataRoot_(std::move(dataRoot)), folders_(1) {}

  // What was listed is forgotten, and every folder has to show that it did not change.
  void BeginQuery();

  // Names that were listed are dropped once they are many, between two lists of records that mostly
  // have a folder each; a file whose folder's names are gone is asked for by itself.
  void BeginList();

  bool StillHolds(const Answer& answer);

  // False when in this query it could not be found out whether a file is there: it counts as
  // missing.
  bool IsSure() const { return sure_; }

  // `path` is the field of a record: UTF-16LE, ended by a zero or by the end of the field.
  Answer Ask(std::span<const std::uint8_t> path);

 private:
  struct Folder {
    std::string path;  // native, with the separator behind it
    FileStamp stamp;
    std::uint32_t version = 0;
    std::uint32_t query = 0;  // the last that it was checked in
    bool present = false;
    bool reliable = false;
    bool listed = false;  // in this query
    std::unordered_map<std::string, EntryKind> names;
  };

  Folder& Checked(std::uint32_t index);
  bool Exists(const std::string& path);
  void List(Folder& folder);
  void DropNames();
  std::uint32_t IndexOf(const std::string& path);
  void Split(std::span<const std::uint8_t> path, std::uint32_t& folder, std::string& name);

  FileIo& io_;
  const std::string dataRoot_;
  std::uint32_t query_ = 0;
  bool sure_ = true;
  std::vector<Folder> folders_;  // [0] stands for none
  std::unordered_map<std::string, std::uint32_t> indexes_;
  std::vector<std::uint32_t> listed_;
  std::size_t names_ = 0;  // that the folders hold
  // The last folder asked for, as records write it: neighbours in a list are neighbours on disk.
  std::vector<std::uint8_t> lastPrefix_;
  std::uint32_t lastFolder_ = 0;
};

}  // namespace cms
