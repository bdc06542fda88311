#include "tools/support/log_output.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>

namespace tools {
namespace {

constexpr int kWriteMs = 1'000;  // for a reader that is slow

// Whether standard error is what the variable names, and not something that it was led to since.
bool IsJournal() {
  const char* const stream = std::getenv("JOURNAL_STREAM");
  unsigned long long device = 0;
  unsigned long long inode = 0;
  struct stat own {};
  return stream != nullptr && std::sscanf(stream, "%llu:%llu", &device, &inode) == 2 &&
         fstat(STDERR_FILENO, &own) == 0 && own.st_dev == device && own.st_ino == inode;
}

// Of syslog.
int PriorityOf(cms::LogLevel level) {
  constexpr std::array kPriorities = {3, 4, 6, 7};
  return kPriorities.at(static_cast<std::size_t>(level));
}

std::string LocalTimeToTheMillisecond(std::int64_t microseconds) {
  const auto seconds = static_cast<std::time_t>(microseconds / 1'000'000);
  std::tm parts{};
  localtime_r(&seconds, &parts);
  std::array<char, 64> day{};
  std::strftime(day.data(), day.size(), "%Y-%m-%d %H:%M:%S", &parts);
  std::array<char, 80> text{};
  std::snprintf(text.data(), text.size(), "%s.%03d", day.data(),
                static_cast<int>(microseconds % 1'000'000 / 1'000));
  return text.data();
}

// A piece is less than a pipe takes in one go, so that it is written whole or, where nobody reads,
// not at all. Once it was too slow it is not waited for any more, until it reads again.
void WriteLines(std::string_view text, bool& isSlow) {
  constexpr std::size_t kPiece = 4096;
  while (!text.empty()) {
    pollfd ready{STDERR_FILENO, POLLOUT, 0};
    isSlow = poll(&ready, 1, isSlow ? 0 : kWriteMs) <= 0;
    if (isSlow) {
      return;
    }
    const ssize_t written = write(STDERR_FILENO, text.data(), std::min(text.size(), kPiece));
    if (written <= 0) {
      return;
    }
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

}  // namespace

const std::vector<std::string>& LogLevelWords() {
  static const std::vector<std::string> words = {"off", "error", "warning", "info", "trace"};
  return words;
}

void AddLogOptions(Command command, LogArguments& arguments) {
  command
      .AddOption("--log-level", arguments.level,
                 "what the library tells on standard error: off, error, warning, info or trace")
      .TypeName("LEVEL")
      .OneOf(LogLevelWords());
  command.AddFlag("--trace", arguments.trace,
                  "print every request and answer of RTSP and HTTP on standard error, without "
                  "passwords: --log-level trace");
}

std::optional<cms::LogLevel> LogLevelOf(const LogArguments& arguments,
                                        const std::string& otherwise) {
  const std::string& word = arguments.trace           ? LogLevelWords().back()
                            : arguments.level.empty() ? otherwise
                                                      : arguments.level;
  const auto found = std::find(LogLevelWords().begin(), LogLevelWords().end(), word);
  const auto place = found - LogLevelWords().begin();
  return place == 0 ? std::nullopt : std::optional(static_cast<cms::LogLevel>(place - 1));
}

std::string LogText(const cms::LogLine& line, bool journal) {
  const std::string priority = "<" + std::to_string(PriorityOf(line.level)) + ">";
  std::string text =
      journal ? priority
              : LocalTimeToTheMillisecond(line.timeUs) + " " + cms::LogLevelName(line.level) + " ";
  text.append(line.area).append(": ");
  for (const char c : line.text) {
    text += c;
    if (c == '\n') {  // of a trace
      text += journal ? priority + "  " : "  ";
    }
  }
  return text + "\n";
}

LogOutput::LogOutput(std::optional<cms::LogLevel> highest) {
  SetLevel(highest);
}

LogOutput::~LogOutput() {
  SetLevel(std::nullopt);
}

void LogOutput::SetLevel(std::optional<cms::LogLevel> highest) {
  cms::LogCallback callback;
  if (highest) {
    callback = [journal = IsJournal(), isSlow = false](const cms::LogLine& line) mutable {
      WriteLines(LogText(line, journal), isSlow);
    };
  }
  cms::SetLogCallback(std::move(callback), highest.value_or(cms::LogLevel::kError));
}

}  // namespace tools
