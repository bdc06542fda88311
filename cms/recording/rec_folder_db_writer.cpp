#include "cms/recording/rec_folder_db_writer.h"

#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/internal/record_text.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace {

bool IsEntryOf(std::span<const std::uint8_t> record, std::wstring_view folder) {
  return cms::LoadUtf16(record) == folder;
}

int AddFolder(unsigned number, std::wstring_view folder, const std::string& dataRoot) {
  cms::stRecFolderDB entry;
  if (!cms::StoreUtf16(folder, entry.folder)) {
    return 1;
  }
  ScopeLock databases(cms::FolderDatabaseLock());
  cms::DatabaseFile list(cms::FolderListPath(number), sizeof(entry), cms::DatabaseAccess::kCreate,
                         dataRoot);
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

void RemoveFolder(unsigned number, std::wstring_view folder, const std::string& dataRoot) {
  ScopeLock databases(cms::FolderDatabaseLock());
  cms::DatabaseFile list(cms::FolderListPath(number), sizeof(cms::stRecFolderDB),
                         cms::DatabaseAccess::kChange, dataRoot);
  if (list) {
    bool found = false;
    list.Filter([&](auto record) {
      const bool remove = !found && IsEntryOf(record, folder);
      found = found || remove;
      return !remove;
    });
  }
}

}  // namespace

int CRecFolderDBWriter::WriterRecFolderDB(unsigned number, const wchar_t* folder) {
  return AddFolder(number, cms::TextOf(folder), {});
}

bool CRecFolderDBWriter::DeleteRecFolderDB(unsigned number, const wchar_t* folder) {
  RemoveFolder(number, cms::TextOf(folder), {});
  return true;
}

int CRecFolderDBWriter::WriterRecFolderDB(unsigned number, const std::string& folder,
                                          const std::string& dataRoot) {
  return AddFolder(number, cms::SystemPath(folder), cms::WholeDataRoot(dataRoot));
}

bool CRecFolderDBWriter::DeleteRecFolderDB(unsigned number, const std::string& folder,
                                           const std::string& dataRoot) {
  RemoveFolder(number, cms::SystemPath(folder), cms::WholeDataRoot(dataRoot));
  return true;
}
