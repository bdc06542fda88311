// The log of client applications: their own lines on standard error, or in a circular log. What the
// library itself has to tell goes elsewhere, see cms/runtime/log.h.
#pragma once

#include <cstdarg>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {
class CCircularLogWriter;

enum ApplicationLogLevel : int {
  kLogError = 0,
  kLogWarning = 1,
  kLogInformation = 2,
  kLogDebug = 3,
};

// Where lines go from now on, and the highest level that is logged. nullptr: standard error, in
// front of each line the time in UTC. When it returns, no thread writes to the last writer any
// more.
CMS_API void SetLog(CCircularLogWriter* writer, int highestLevel);

// One line: a letter for the level (E, W, I, D), the thread's number and the text, whose control
// characters are made visible. Texts beyond 4 KiB are cut. Any thread may call it. False when the
// level is not logged or the line could not be written.
CMS_API bool Log(int level, std::string_view text);

// The same of a printf format; a format that cannot be applied is logged as it stands.
CMS_API bool LogFormat(int level, const char* format, std::va_list arguments);
CMS_API bool LogFormat(int level, const wchar_t* format, std::va_list arguments);

}  // namespace cms
