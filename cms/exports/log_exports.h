// The log of client applications as plain functions, the circular log writer, and the trace
// functions that do nothing. What the library itself has to tell does not come here: it goes to the
// callback of cms::SetLogCallback (cms/runtime/log.h). Any thread may call them.
#pragma once

#include <cstdint>

#include "cms/runtime/api.h"
#include "cms/runtime/circular_log.h"

namespace cms {

enum CMS_LOG_LEVEL : int {
  CMS_LOG_ERROR = 0,
  CMS_LOG_WARNING = 1,
  CMS_LOG_INFORMATION = 2,
  CMS_LOG_DEBUG = 3,
};

}  // namespace cms

extern "C" {

// A line of the log, made of a printf format; CMSLogA and CMSLogW log information. Control
// characters are made visible, and what goes beyond 4 KiB is cut. A text that came from the network
// is never a format.
CMS_API void CMSLogA(const char* format, ...) __attribute__((format(printf, 1, 2)));
CMS_API void CMSLogW(const wchar_t* format, ...);
CMS_API void CMSLogExA(int level, const char* format, ...) __attribute__((format(printf, 2, 3)));
CMS_API void CMSLogExW(int level, const wchar_t* format, ...);

// Where the lines go, and the highest level that is logged: into a circular log, or, with a null
// pointer and at first, to standard error. The writer is in use until the next call returns.
CMS_API void CMSSetLog(cms::CCircularLogWriter* writer, int highestLevel);

// Opens a circular log, or makes one of `size` bytes (16 KiB to 64 MiB; others are brought there).
// Null when the file is something else, is open elsewhere or cannot be written. Path as in
// cms/runtime/nativePath.h. cms/runtime/circular_log.h tells what is in it and how it is read.
CMS_API cms::CCircularLogWriter* CreateCircularLogWriter(const wchar_t* path, std::uint32_t size);
CMS_API void DestroyCircularLogWriter(cms::CCircularLogWriter* writer);  // null is allowed
// Appends an entry: 1, or 0 when the disk refuses or there is no writer.
CMS_API int WriteLog(cms::CCircularLogWriter* writer, const char* text);

// They all do nothing, CloseAllRequest (cms/exports/http_server_exports.h) as well. CMS_syslog is
// the one that other platforms call "syslog": by that name it would take the place of the C
// library's in every program that loads this library.
CMS_API void CMSTraceA(const char* format, ...);
CMS_API void CMSTraceW(const wchar_t* format, ...);
CMS_API void CMS_syslog(int priority, const char* format, ...);
CMS_API void wsyslog(int priority, const wchar_t* format, ...);
CMS_API void CMSDoNothing();

}  // extern "C"
