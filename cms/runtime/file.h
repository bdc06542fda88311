// File, a path with questions about what lies there.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "cms/runtime/api.h"

// Holds one path (cms/runtime/nativePath.h says which texts are paths). Every question asks the
// file system afresh; what cannot be asked counts as missing. Nothing throws. Copies are
// independent; any thread may use its own.
class CMS_API File {
 public:
  explicit File(std::wstring path) : path_(std::move(path)) {}

  const std::wstring& getPathName() const { return path_; }
  bool exists() const;
  bool isDirectory() const;
  bool isFile() const;    // there, and no directory
  bool isHidden() const;  // there, and its name begins with "."

  // When it was last written, in ticks of 100 nanoseconds since 1601-01-01 UTC; 0 when missing.
  std::uint64_t lastModified() const;

  std::uint64_t length() const;  // bytes; 0 for a directory and when missing

  // Creates an empty file and the folders that it needs. False when something has that name
  // already, even if it appeared meanwhile, or when it cannot be created.
  bool createNewFile() const;

  bool deleteFile() const;  // a file, an empty directory, or a link itself

  bool mkdir() const;  // one directory; false when the name is taken

  // The directory and all that lead to it. True when it is there in the end, even if it was before.
  bool mkdirs() const;

 private:
  std::wstring path_;
};
