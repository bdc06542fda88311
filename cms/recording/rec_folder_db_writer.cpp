#include "cms/recording/rec_folder_db_writer.h"

#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/internal/record_text.h"
#include "cms/runtime/wide_text.h"

namespace {

bool IsEntryOf(std::span<const std::uint8_t> record, std::wstring_view folder) {
  return cms::LoadUtf16(record) == folder;
}

}  // namespace

int CRecFolderDBWriter::WriterRecFolderDB(unsigned number, const wchar_t* folder) {
  stRecFolderDB entry;
  if (!cms::StoreUtf16(cms::TextOf(folder), entry.folder)) {
    return 1;
  }
  ScopeLock databases(cms::FolderDatabaseLock());
  cms::DatabaseFile list(cms::FolderListPath(number), sizeof(entry), cms::DatabaseAccess::kCreate);
  bool found = false;
  if (!list || !list.ForEach([&](auto record) {
        found = IsEntryOf(record, cms::LoadUtf16(entry.folder));
        return !found;
      })) {
    return 1;
  }
  if (found) {
    return 0;
  }
  list.Append(cms::BytesOf(entry));
  return 1;
}

bool CRecFolderDBWriter::DeleteRecFolderDB(unsigned number, const wchar_t* folder) {
  ScopeLock databases(cms::FolderDatabaseLock());
  cms::DatabaseFile list(cms::FolderListPath(number), sizeof(stRecFolderDB),
                         cms::DatabaseAccess::kChange);
  if (list) {
    bool found = false;
    list.Filter([&](auto record) {
      const bool remove = !found && IsEntryOf(record, cms::TextOf(folder));
      found = found || remove;
      return !remove;
    });
  }
  return true;
}
