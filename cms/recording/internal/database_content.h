// Reading a whole database into rows.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "cms/recording/database_reader.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/runtime/critical.h"

namespace cms {

template <typename Record, typename Row>
DatabaseContent<Row> ReadDatabase(const std::wstring& path, CMSCritical& lock,
                                  Row (*rowOf)(const Record&), const std::string& dataRoot) {
  ScopeLock hold(lock);
  DatabaseContent<Row> content;
  DatabaseFile file(path, sizeof(Record), DatabaseAccess::kRead, dataRoot);
  if (!file) {
    content.state = file.Missing() ? DatabaseState::kMissing : DatabaseState::kUnreadable;
    return content;
  }
  const bool read = file.ForEach([&](std::span<const std::uint8_t> record) {
    content.rows.push_back(rowOf(RecordFrom<Record>(record)));
    return true;
  });
  content.state = read ? DatabaseState::kRead : DatabaseState::kUnreadable;
  content.tornBytes = file.TornBytes();
  return content;
}

}  // namespace cms
