#include "cms/exports/log_exports.h"

#include <cstdarg>
#include <exception>

#include "cms/runtime/application_log.h"
#include "cms/runtime/native_path.h"

static_assert(int{cms::CMS_LOG_ERROR} == int{cms::kLogError} &&
              int{cms::CMS_LOG_DEBUG} == int{cms::kLogDebug});

namespace {

template <class Char>
void LogLine(int level, const Char* format, std::va_list arguments) {
  try {
    cms::LogFormat(level, format, arguments);
  } catch (const std::exception&) {  // memory is short: the line is lost
  }
}

}  // namespace

void CMSLogA(const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  LogLine(cms::CMS_LOG_INFORMATION, format, arguments);
  va_end(arguments);
}

void CMSLogW(const wchar_t* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  LogLine(cms::CMS_LOG_INFORMATION, format, arguments);
  va_end(arguments);
}

void CMSLogExA(int level, const char* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  LogLine(level, format, arguments);
  va_end(arguments);
}

void CMSLogExW(int level, const wchar_t* format, ...) {
  std::va_list arguments;
  va_start(arguments, format);
  LogLine(level, format, arguments);
  va_end(arguments);
}

void CMSSetLog(cms::CCircularLogWriter* writer, int highestLevel) {
  cms::SetLog(writer, highestLevel);
}

cms::CCircularLogWriter* CreateCircularLogWriter(const wchar_t* path, std::uint32_t size) {
  try {
    int error = 0;
    return path != nullptr
               ? cms::CCircularLogWriter::Open(cms::NativePath(path), size, error).release()
               : nullptr;
  } catch (const std::exception&) {
    return nullptr;
  }
}

void DestroyCircularLogWriter(cms::CCircularLogWriter* writer) {
  delete writer;
}

int WriteLog(cms::CCircularLogWriter* writer, const char* text) {
  try {
    return writer != nullptr && text != nullptr && writer->Write(text) ? 1 : 0;
  } catch (const std::exception&) {
    return 0;
  }
}

void CMSTraceA(const char* /*format*/, ...) {}
void CMSTraceW(const wchar_t* /*format*/, ...) {}
void CMS_syslog(int /*priority*/, const char* /*format*/, ...) {}
void wsyslog(int /*priority*/, const wchar_t* /*format*/, ...) {}
void CMSDoNothing() {}
