// Reads the databases of recordings for people and tools: every record with its texts in UTF-8.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

struct RecordRow {
  std::string file;  // the .drv file, as the system writes paths
  std::string address;
  std::string siteName;
  std::uint16_t port = 0;
  std::uint32_t siteNumber = 0;
  std::uint8_t nibbles = 0;  // carried in the record, without a meaning
  std::uint8_t flag = 0;     // "
  std::int64_t start = 0;    // seconds since 1970-01-01 UTC, 0: not set
  std::int64_t end = 0;
};

struct EventRow {
  std::string siteName;
  std::string address;
  std::uint16_t port = 0;
  unsigned cmsNumber = 0;
  unsigned groupNumber = 0;
  unsigned channel = 0;  // from 0
  unsigned type = 0;     // an event of CMSRecordKind
  unsigned index = 0;
  unsigned preAlarm = 0;  // seconds
  std::uint32_t siteNumber = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
};

struct FolderRow {
  std::string folder;  // as the system writes paths
};

struct SpanRow {
  std::int64_t start = 0;
  std::int64_t end = 0;

  bool operator==(const SpanRow&) const = default;
};

enum class DatabaseState {
  kMissing,     // there is no such file
  kRead,        // all of it
  kUnreadable,  // it cannot be opened, or reading failed: the rows are those until then
};

// What a database holds, in the order of the file.
template <typename Row>
struct DatabaseContent {
  DatabaseState state = DatabaseState::kMissing;
  std::vector<Row> rows;
  std::uint64_t tornBytes = 0;  // of a last record that is not whole; the next one overwrites them
};

// Each takes its database's lock of the process while it reads and waits for no other process.
// Paths are as the system writes them; of a recording folder, without a separator behind it. A span
// file is one row. Without a root (cms/recording/data_root.h) that of the process counts.
CMS_API DatabaseContent<RecordRow> ReadRecordList(std::wstring_view folder,
                                                  const std::string& dataRoot = {});
CMS_API DatabaseContent<SpanRow> ReadFolderSpan(std::wstring_view folder,
                                                const std::string& dataRoot = {});
// "..\EventList<number>"
CMS_API DatabaseContent<EventRow> ReadEventList(int number, const std::string& dataRoot = {});
// "..\RecFolderDB<number>"
CMS_API DatabaseContent<FolderRow> ReadFolderList(unsigned number,
                                                  const std::string& dataRoot = {});

// A record's time as "2024-02-29T12:00:00Z", "-" when it is not set; a time that no calendar holds
// stays a number.
CMS_API std::string TextOfRecordTime(std::int64_t seconds);

// "device event", "alarm", "video loss", or "type <number>" for others.
CMS_API std::string TextOfEventType(unsigned type);

}  // namespace cms
