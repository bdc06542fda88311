#include "cms/runtime/application_log.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cwchar>
#include <string>

#include "cms/runtime/circular_log.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/line_text.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr std::size_t kLongest = CCircularLogWriter::kLongestText;

struct Target {
  std::atomic<int> highestLevel{kLogDebug};
  CMSCritical lock;
  CCircularLogWriter* writer CMS_GUARDED_BY(lock) = nullptr;
};

Target& TheTarget() {
  static auto* target = new Target;  // threads may still log while the process ends
  return *target;
}

bool IsApplicationLevel(int level) {
  return level <= TheTarget().highestLevel.load(std::memory_order_relaxed);
}

// One write, so that lines of several processes on one terminal stay whole.
bool ToStandardError(const std::string& line) {
  ssize_t written = 0;
  do {
    written = write(STDERR_FILENO, line.data(), line.size());
  } while (written < 0 && errno == EINTR);
  return written == static_cast<ssize_t>(line.size());
}

}  // namespace

void SetLog(CCircularLogWriter* writer, int highestLevel) {
  Target& target = TheTarget();
  ScopeLock lock(target.lock);
  target.writer = writer;
  target.highestLevel.store(highestLevel, std::memory_order_relaxed);
}

bool Log(int level, std::string_view text) {
  if (!IsApplicationLevel(level)) {
    return false;
  }
  const char letter = level <= kLogError         ? 'E'
                      : level == kLogWarning     ? 'W'
                      : level == kLogInformation ? 'I'
                                                 : 'D';
  std::string line = std::string(1, letter) + " " + std::to_string(gettid()) + " ";
  line += text;
  Target& target = TheTarget();
  ScopeLock lock(target.lock);
  if (target.writer != nullptr) {
    return target.writer->Write(line);
  }
  return ToStandardError(TimeTextOfNow() + " " + OneLine(line, kLongest) + "\n");
}

bool LogFormat(int level, const char* format, std::va_list arguments) {
  if (format == nullptr || !IsApplicationLevel(level)) {
    return false;
  }
  std::array<char, kLongest + 1> text;
  const bool applied = std::vsnprintf(text.data(), text.size(), format, arguments) >= 0;
  return Log(level, applied ? text.data() : format);
}

bool LogFormat(int level, const wchar_t* format, std::va_list arguments) {
  if (format == nullptr || !IsApplicationLevel(level)) {
    return false;
  }
  // Unlike its narrow twin, vswprintf only says that the text is too long, and leaves it cut.
  std::array<wchar_t, kLongest + 1> text{};
  errno = 0;
  const bool applied = std::vswprintf(text.data(), text.size(), format, arguments) >= 0 ||
                       (errno != EILSEQ && text.front() != L'\0');
  text.back() = L'\0';
  return Log(level, Utf8FromWide(applied ? text.data() : format));
}

}  // namespace cms
