// Exported functions of the recordings' databases.
#pragma once

#include <cstdint>

#include "cms/runtime/api.h"

// A folder is a recording folder as the system writes paths, without a separator behind it: its
// record list is "<folder>\RecordDB", its span "<folder>.DB". A null text is an empty one. Times
// are seconds since 1970-01-01 UTC, 0 while not set. A record matches a name that its file name
// contains, letter for letter (an empty name: every record). The functions may be called from any
// thread while recorders run, also those of other processes; each waits for the disk. None tells
// why it failed; what a failed function was to change is as it was before, or whole records of it
// are changed.
extern "C" {

// Computes the span from the record list (0 and 0 without a list; only times above 0 are stored)
// and writes it. 1, or 0 when the span file cannot be written or the list cannot be read.
CMS_API int MakeSubRecFolderDB(const wchar_t* folder);

// The earliest start and the latest end of the record list's records, whether set or not; 0 and 0
// of an empty list. False, with both 0, when the list cannot be read. Null pointers are passed
// over.
CMS_API bool GetTimeFromSubFolderDB(const wchar_t* folder, std::int64_t* start, std::int64_t* end);

// Deletes the span file. 1, or 0 when it cannot be deleted.
CMS_API int RemoveRecSubFolderDB(const wchar_t* folder);

// Narrows the stored span after recordings were deleted: a start that is not 0 replaces an earlier
// one, an end that is not 0 a later one. 1, or 0 when there is no span or it cannot be written.
CMS_API int ModifyRecSubFolderDBInfo(const wchar_t* folder, std::int64_t start, std::int64_t end);

// Sets the start and the end, each if not 0, of all records that match. 1, or 0 when none does or
// they cannot all be written.
CMS_API int ModifyDBInfoTime(const wchar_t* folder, const wchar_t* name, std::int64_t start,
                             std::int64_t end);

// Appends the record of a file "<folder>\<newFileName>" with these times; address, site name, port
// and site number are those of the first record that matches, empty and 0 when none does or the
// list does not exist yet. 1, or 0 when it cannot be written.
CMS_API int AddDBInfoFromList(const wchar_t* folder, const wchar_t* name,
                              const wchar_t* newFileName, std::int64_t start, std::int64_t end);

// Removes the first record that matches and whose start and end are both set; the span stays. 1, or
// 0 when there is none or the list cannot be rewritten.
CMS_API int RemoveDBInfoFromList(const wchar_t* folder, const wchar_t* name);

// Deletes the record list and then the span file. True only if both were deleted; the span file
// stays when the list could not be deleted.
CMS_API bool RemoveDBList(const wchar_t* folder);

// Keep this process's recorders from storing events, so that the client application can read or
// trim the event list. The thread that locked unlocks; it may lock several times.
CMS_API void EventDBLock();
CMS_API void EventDBUnLock();

}  // extern "C"
