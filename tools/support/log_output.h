// What the library tells of its work, on standard error.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "cms/runtime/log.h"
#include "tools/support/options.h"

namespace tools {

struct LogArguments {
  std::string level;  // one of LogLevelWords(); empty: the command's own default
  bool trace = false;
};

// "off", "error", "warning", "info", "trace"
const std::vector<std::string>& LogLevelWords();

// --log-level and --trace.
void AddLogOptions(Command command, LogArguments& arguments);

// The level of what was given, nothing for "off". `otherwise` is a word, too.
std::optional<cms::LogLevel> LogLevelOf(const LogArguments& arguments,
                                        const std::string& otherwise);

// As long as it lives. Where standard error is the journal of systemd ($JOURNAL_STREAM) each line
// begins with its priority, such as "<4>", and the journal has the time; else with time and level.
// A reader that does not keep up loses lines, and delays nobody.
class LogOutput {
 public:
  explicit LogOutput(std::optional<cms::LogLevel> highest);
  ~LogOutput();
  LogOutput(const LogOutput&) = delete;
  LogOutput& operator=(const LogOutput&) = delete;

  void SetLevel(std::optional<cms::LogLevel> highest);  // not by two threads at once
};

// The text of a line as it is written, its ends of lines included.
std::string LogText(const cms::LogLine& line, bool journal);

}  // namespace tools
