#include "cms/recording/internal/folder_mend.h"

#include "cms/recording/database_reader.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/folder_span_file.h"
#include "cms/recording/record_db_info.h"

namespace cms {
namespace {

FX::FX_RecSubFolderDBInfo SpanOf(const std::vector<RecordRow>& rows) {
  FX::FX_RecSubFolderDBInfo span;
  for (const RecordRow& row : rows) {
    span.SetStartTime(row.start);
    span.SetEndTime(row.end);
  }
  return span;
}

bool IsSound(const std::wstring& folder, const std::vector<RecordRow>& rows) {
  const auto stored = ReadFolderSpan(folder);
  const auto span = SpanOf(rows);
  return stored.rows.size() == 1 && stored.tornBytes == 0 &&
         stored.rows[0].start == span.GetStartTime() && stored.rows[0].end == span.GetEndTime();
}

bool CutTornTail(const std::wstring& folder) {
  ScopeLock databases(RecordDatabaseLock());
  DatabaseFile list(RecordListPath(folder), sizeof(FX::FX_RecordDBInfo), DatabaseAccess::kChange);
  return list && list.CutTornTail();
}

}  // namespace

FolderMend MendFolderDatabases(const std::wstring& folder) {
  const auto list = ReadRecordList(folder);
  if (list.state != DatabaseState::kRead) {
    return list.state == DatabaseState::kMissing ? FolderMend::kSound : FolderMend::kFailed;
  }
  if (list.tornBytes > 0 && !CutTornTail(folder)) {
    return FolderMend::kFailed;
  }
  if (IsSound(folder, list.rows)) {
    return FolderMend::kSound;
  }
  ScopeLock databases(RecordDatabaseLock());
  // Held while the list is read again: a recorder that appends meanwhile widens the span behind us.
  FolderSpanFile file(FolderSpanPath(folder), DatabaseAccess::kCreate);
  const auto rows = ReadRecordList(folder).rows;
  if (!file || !file.Write(SpanOf(rows))) {
    return FolderMend::kFailed;
  }
  return FolderMend::kMended;
}

}  // namespace cms
