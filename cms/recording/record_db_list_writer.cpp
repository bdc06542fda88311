#include "cms/recording/record_db_list_writer.h"

#include <string>

#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/folder_span_file.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/wide_text.h"

namespace FX {

namespace {

// A path that was cut would be another file's.
void StorePath(const std::wstring& path, char16_t (&field)[260]) {
  if (!cms::StoreUtf16(path, field)) {
    cms::StoreUtf16(L"", field);
  }
}

bool AppendToList(const stRecordDB& record, const std::string& dataRoot) {
  cms::DatabaseFile list(cms::LoadUtf16(record.recordListPath), sizeof(FX_RecordDBInfo),
                         cms::DatabaseAccess::kCreate, dataRoot);
  return list && list.Append(cms::BytesOf<FX_RecordDBInfo>(record));
}

bool WidenFolderSpan(const stRecordDB& record, const std::string& dataRoot) {
  cms::FolderSpanFile file(cms::LoadUtf16(record.folderSpanPath), cms::DatabaseAccess::kCreate,
                           dataRoot);
  FX_RecSubFolderDBInfo span;
  if (!file || !file.Read(span)) {
    return false;
  }
  span.SetStartTime(record.GetStartTime());
  span.SetEndTime(record.GetEndTime());
  return file.Write(span);
}

}  // namespace

void FX_RecordDBListWriter::SetDataRoot(const std::string& folder) {
  const std::string root = cms::WholeDataRoot(folder);
  ScopeLock hold(lock_);
  dataRoot_ = root;
}

void FX_RecordDBListWriter::SetDBListPath(const wchar_t* folder) {
  const std::wstring text(cms::TextOf(folder));
  ScopeLock hold(lock_);
  StorePath(text, folder_);
  StorePath(cms::RecordListPath(text), listPath_);
  StorePath(cms::FolderSpanPath(text), spanPath_);
}

void FX_RecordDBListWriter::InitialRecordDBInfo(const wchar_t* drvFileName, const wchar_t* address,
                                                const wchar_t* siteName, std::uint16_t port) {
  WriteDBInfoIntoList();
  const std::wstring name(cms::TextOf(drvFileName));
  ScopeLock hold(lock_);
  const std::wstring path = cms::LoadUtf16(folder_) + L"\\" + name;
  const FX_RecordDBInfo info(path.c_str(), address, siteName, port,
                             static_cast<std::uint32_t>(cms::SiteNumberOf(name).value_or(0)), 0);
  record_ = stRecordDB(info, cms::LoadUtf16(listPath_).c_str(), cms::LoadUtf16(spanPath_).c_str());
}

void FX_RecordDBListWriter::SetRecordTime(std::int64_t time) {
  ScopeLock hold(lock_);
  record_.SetRecordTime(time);
}

bool FX_RecordDBListWriter::WriteDBInfoIntoList() {
  {
    ScopeLock hold(lock_);
    if (record_.pending == 0) {  // another folder's search may hold the databases for long
      return true;
    }
  }
  ScopeLock databases(cms::RecordDatabaseLock());
  stRecordDB record;
  std::string dataRoot;
  {
    ScopeLock hold(lock_);
    if (record_.pending == 0) {
      return true;
    }
    record = record_;
    dataRoot = dataRoot_;
    record_ = stRecordDB();
  }
  const bool listed = AppendToList(record, dataRoot);
  const bool widened = WidenFolderSpan(record, dataRoot);
  return listed && widened;
}

}  // namespace FX
