// The folder-span file: sixteen bytes beside a recording folder.
#pragma once

#include <string>
#include <string_view>

#include "cms/recording/internal/database_file.h"
#include "cms/recording/rec_sub_folder_db_info.h"

namespace cms {

// One hold of the file, under the record databases' lock. As it is changed in place, what another
// process adds meanwhile waits for the end of the hold.
class FolderSpanFile {
 public:
  FolderSpanFile(std::wstring_view systemPath, DatabaseAccess access,
                 const std::string& dataRoot = {});

  explicit operator bool() const { return static_cast<bool>(file_); }
  // What the file holds; bytes that are not there count as 0. False when reading failed.
  bool Read(FX::FX_RecSubFolderDBInfo& span);
  bool Write(const FX::FX_RecSubFolderDBInfo& span);  // the whole file is the span afterwards

 private:
  DatabaseFile file_;
};

}  // namespace cms
