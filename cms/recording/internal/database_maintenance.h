// Maintenance of record lists and folder spans; the exported functions are these.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

namespace cms {

// A recording folder is given without a separator behind it. Each function takes the record
// databases' lock for its whole run. Names match records whose file name contains them, letter for
// letter. Results as in cms/exports/database_exports.h.

bool FolderTimes(std::wstring_view folder, std::int64_t& start, std::int64_t& end);
bool MakeFolderSpan(std::wstring_view folder);
bool RemoveFolderSpan(std::wstring_view folder);
bool NarrowFolderSpan(std::wstring_view folder, std::int64_t start, std::int64_t end);
bool ModifyRecordTimes(std::wstring_view folder, std::wstring_view name, std::int64_t start,
                       std::int64_t end);
bool AddRecord(std::wstring_view folder, std::wstring_view name, std::wstring_view newFileName,
               std::int64_t start, std::int64_t end);
bool RemoveRecord(std::wstring_view folder, std::wstring_view name);
bool RemoveRecordList(std::wstring_view folder);

// Removes all records whose file, the whole path as it is recorded, is one of those. True unless
// the list could not be read or written; a list that is missing has none.
bool RemoveRecords(std::wstring_view folder,
                   const std::function<bool(std::wstring_view file)>& isOne);

// Removes the list when it holds no record any more, and with it the folder's span. True when it
// went.
bool RemoveEmptyRecordList(std::wstring_view folder);

}  // namespace cms
