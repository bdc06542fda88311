// CRecFolderDBWriter: the list of the folders that hold recordings.
#pragma once

#include <cstddef>
#include <string>
#include <type_traits>

#include "cms/runtime/api.h"

namespace cms {

// One entry of a folder list: a path, UTF-16LE, terminated by a zero and zero-filled behind.
struct stRecFolderDB {
  char16_t folder[260] = {};
};

}  // namespace cms
static_assert(sizeof(cms::stRecFolderDB) == 520 && offsetof(cms::stRecFolderDB, folder) == 0 &&
              std::is_trivially_copyable_v<cms::stRecFolderDB>);

// Keeps the folder list of a number, "..\RecFolderDB<number>". It has no state of its own; any
// thread may use any object. Each call takes the folder databases' lock of the process.
class CMS_API CRecFolderDBWriter {
 public:
  // Appends the folder. 0 when the list has it already, letter for letter; 1 otherwise, also when
  // the list could not be opened or written, or the path has more than 259 characters: such a path
  // is not stored, as cut off it would be another folder's.
  int WriterRecFolderDB(unsigned number, const wchar_t* folder);

  // Removes the first entry of the folder. Always true; a list that could not be rewritten stays as
  // it is.
  bool DeleteRecFolderDB(unsigned number, const wchar_t* folder);

  // The same for a native path in UTF-8, in the list of a data root (cms/recording/data_root.h).
  int WriterRecFolderDB(unsigned number, const std::string& folder,
                        const std::string& dataRoot = {});
  bool DeleteRecFolderDB(unsigned number, const std::string& folder,
                         const std::string& dataRoot = {});
};
