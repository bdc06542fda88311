#include "cms/exports/database_exports.h"

#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_maintenance.h"
#include "cms/recording/internal/record_text.h"

using cms::TextOf;

int MakeSubRecFolderDB(const wchar_t* folder) {
  return cms::MakeFolderSpan(TextOf(folder)) ? 1 : 0;
}

bool GetTimeFromSubFolderDB(const wchar_t* folder, std::int64_t* start, std::int64_t* end) {
  std::int64_t first = 0;
  std::int64_t last = 0;
  const bool read = cms::FolderTimes(TextOf(folder), first, last);
  if (start != nullptr) {
    *start = first;
  }
  if (end != nullptr) {
    *end = last;
  }
  return read;
}

int RemoveRecSubFolderDB(const wchar_t* folder) {
  return cms::RemoveFolderSpan(TextOf(folder)) ? 1 : 0;
}

int ModifyRecSubFolderDBInfo(const wchar_t* folder, std::int64_t start, std::int64_t end) {
  return cms::NarrowFolderSpan(TextOf(folder), start, end) ? 1 : 0;
}

int ModifyDBInfoTime(const wchar_t* folder, const wchar_t* name, std::int64_t start,
                     std::int64_t end) {
  return cms::ModifyRecordTimes(TextOf(folder), TextOf(name), start, end) ? 1 : 0;
}

int AddDBInfoFromList(const wchar_t* folder, const wchar_t* name, const wchar_t* newFileName,
                      std::int64_t start, std::int64_t end) {
  return cms::AddRecord(TextOf(folder), TextOf(name), TextOf(newFileName), start, end) ? 1 : 0;
}

int RemoveDBInfoFromList(const wchar_t* folder, const wchar_t* name) {
  return cms::RemoveRecord(TextOf(folder), TextOf(name)) ? 1 : 0;
}

bool RemoveDBList(const wchar_t* folder) {
  return cms::RemoveRecordList(TextOf(folder));
}

void EventDBLock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  cms::EventDatabaseLock().Lock();
}

void EventDBUnLock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  cms::EventDatabaseLock().UnLock();
}
