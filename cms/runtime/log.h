// What the library itself has to tell of its work: connections that come and go, recordings, gaps,
// disks, cameras that refuse. The log of client applications' own lines is another one, see
// cms/exports/log_exports.h: nothing of the library's goes there, and nothing of it comes here.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

enum class LogLevel : int {
  kError = 0,    // something is lost, or will be if nobody does anything
  kWarning = 1,  // it fails now and is tried again by itself
  kInfo = 2,     // what happened: connected, recording begun
  kTrace = 3,    // every request and answer of RTSP and HTTP, in several lines each
};

// "error", "warning", "info" or "trace".
CMS_API const char* LogLevelName(LogLevel level);

// Valid while the callback runs. No text holds a password: credentials in URLs, logins in requests
// and what else is known to be secret are left out.
struct LogLine {
  LogLevel level = LogLevel::kInfo;
  std::int64_t timeUs = 0;  // microseconds since 1970-01-01 UTC
  std::string_view area;    // one word, such as "connection", "recording", "disk" or "rtsp"
  // UTF-8 as it came, without control characters; one line of at most 4 KiB: what failed, with
  // which address, and what to do. Those of kTrace: lines with "\n" between them, 32 KiB.
  std::string_view text;
};

using LogCallback = std::function<void(const LogLine&)>;

// Every line of a level up to `highest` goes to the callback from now on, an empty one: none, as at
// first. It is called on a thread of its own ("cms-log"), one line after the other, with no lock of
// the library held, so it may take its time and call the library; what it makes the library log is
// left out. Nobody else waits for it: of what it does not keep up with 2,000 lines or 4 MiB are
// kept, later ones are dropped, and a line tells how many.
//
// A line that says the same as another one within a minute is not told again but counted, and the
// count stands in the next one: " (12 times more)". Traces are all told.
//
// Waits until the earlier callback has been given what was logged before, and does not run any
// more. Any thread but the callback's own. False when the system has no thread left; then there is
// no callback.
CMS_API bool SetLogCallback(LogCallback callback, LogLevel highest);

// Whether somebody wants to know: what is costly to tell is made only then. One relaxed load.
CMS_API bool IsLogged(LogLevel level);

// Tells a line, or does nothing where it is not wanted. Waits for nobody and may be called with any
// lock held. The text needs no care: it is cut, made visible and freed of passwords.
CMS_API void Log(LogLevel level, std::string_view area, std::string_view text) noexcept;

// The lines that were dropped because a callback did not keep up, since the process began.
CMS_API std::uint64_t DroppedLogLines();

}  // namespace cms
