#include "cms/recording/database_reader.h"

#include <ctime>

#include "cms/recording/event_db_info.h"
#include "cms/recording/internal/database_content.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/rec_sub_folder_db_info.h"
#include "cms/recording/record_db_info.h"
#include "cms/recording/recording_kind.h"
#include "cms/runtime/wide_text.h"

namespace cms {

namespace {

RecordRow RowOf(const FX::FX_RecordDBInfo& record) {
  RecordRow row;
  record.GetFileName(row.file);
  row.address = Utf8FromWide(record.GetAddressW());
  row.siteName = Utf8FromWide(record.GetSiteNameW());
  row.port = record.GetPort();
  row.siteNumber = record.GetSiteNumber();
  row.nibbles = record.GetNibbles();
  row.flag = record.GetFlag();
  row.start = record.GetStartTime();
  row.end = record.GetEndTime();
  return row;
}

EventRow RowOf(const FX::FX_EventDBInfo& event) {
  EventRow row;
  row.siteName = Utf8FromWide(event.GetSiteNameW());
  row.address = Utf8FromWide(event.GetAddressW());
  row.port = event.GetPort();
  row.cmsNumber = event.GetCMSNumber();
  row.groupNumber = event.GetGroupNumber();
  row.channel = event.GetChNumber();
  row.type = event.GetType();
  row.index = event.GetIndex();
  row.preAlarm = event.GetPreAlarm();
  row.siteNumber = event.GetSiteNumber();
  row.start = event.GetStartTime();
  row.end = event.GetEndTime();
  return row;
}

FolderRow RowOf(const stRecFolderDB& entry) {
  return {Utf8FromWide(LoadUtf16(entry.folder))};
}

SpanRow RowOf(const FX::FX_RecSubFolderDBInfo& span) {
  return {span.GetStartTime(), span.GetEndTime()};
}

}  // namespace

DatabaseContent<RecordRow> ReadRecordList(std::wstring_view folder, const std::string& dataRoot) {
  return ReadDatabase<FX::FX_RecordDBInfo, RecordRow>(RecordListPath(folder), RecordDatabaseLock(),
                                                      RowOf, dataRoot);
}

DatabaseContent<SpanRow> ReadFolderSpan(std::wstring_view folder, const std::string& dataRoot) {
  return ReadDatabase<FX::FX_RecSubFolderDBInfo, SpanRow>(FolderSpanPath(folder),
                                                          RecordDatabaseLock(), RowOf, dataRoot);
}

DatabaseContent<EventRow> ReadEventList(int number, const std::string& dataRoot) {
  return ReadDatabase<FX::FX_EventDBInfo, EventRow>(EventListPath(number), EventDatabaseLock(),
                                                    RowOf, dataRoot);
}

DatabaseContent<FolderRow> ReadFolderList(unsigned number, const std::string& dataRoot) {
  return ReadDatabase<stRecFolderDB, FolderRow>(FolderListPath(number), FolderDatabaseLock(), RowOf,
                                                dataRoot);
}

std::string TextOfRecordTime(std::int64_t seconds) {
  if (seconds == 0) {
    return "-";
  }
  const std::time_t time = seconds;
  std::tm parts{};
  char text[64];
  if (gmtime_r(&time, &parts) == nullptr ||
      std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%SZ", &parts) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

std::string TextOfEventType(unsigned type) {
  switch (type) {
    case kRecordDeviceEvent:
      return "device event";
    case kRecordAlarm:
      return "alarm";
    case kRecordVideoLoss:
      return "video loss";
    default:
      return "type " + std::to_string(type);
  }
}

}  // namespace cms
