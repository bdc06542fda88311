// The command line's commands and options. CLI11 stands behind them and is compiled in options.cpp
// and manual.cpp alone: included everywhere it took more time than all that the commands do.
//
// Command and Option are handles that can be copied; what they name lives as long as the
// CommandLine. A value that an option fills must live as long.
#pragma once

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tools {

// Wrong usage that only shows once all options are read: one line, status 2.
class UsageError : public std::runtime_error {
 public:
  explicit UsageError(const std::string& text) : std::runtime_error(text) {}
  UsageError(const std::string& option, const std::string& text)
      : std::runtime_error(option + ": " + text) {}
};

// "orvanta audio decode"
std::string PathOf(const CLI::App& command);

class Option {
 public:
  explicit Option(CLI::Option* option) : option_(option) {}

  Option Required(bool required = true) const;
  Option ShowDefault() const;
  Option TypeName(const std::string& name) const;
  Option Text(const std::string& text) const;  // in the help, in place of type and default

  template <typename Number>
  Option InRange(Number low, Number high) const;
  Option Positive() const;
  Option Port() const;  // 0 to 65535
  Option OneOf(const std::vector<std::string>& words) const;
  Option IPv4() const;
  Option IPv4Or(const std::string& word) const;
  Option ExistingFile() const;

  Option Repeatable() const;  // one value each time; the values add up
  Option List() const;        // repeatable, and values between commas are one each
  Option Needs(Option other) const;
  Option Needs(const std::string& other) const;
  Option Excludes(Option other) const;

 private:
  CLI::Option* option_;
};

class Command {
 public:
  explicit Command(CLI::App* app) : app_(app) {}

  Command Add(const std::string& name, const std::string& help) const;
  void RequireCommand() const;  // one of its own commands must be named

  // Value: a text, a number, std::optional of one, or a vector of texts or numbers. A name without
  // dashes is a positional argument.
  template <typename Value>
  Option AddOption(const std::string& name, Value& value, const std::string& help = "") const;
  Option AddFlag(const std::string& name, bool& value, const std::string& help = "") const;
  // What was given goes to `read`, which throws UsageError for what it does not take.
  Option AddParsed(const std::string& name, std::function<void(const std::string&)> read,
                   const std::string& help) const;
  bool Has(const std::string& option) const;  // whether it was given

  // Does the job once the command's options are read. It throws a std::exception for a failed one.
  void Run(std::function<void()> job) const;
  // The same for a command whose parent's options may stand behind its own name.
  void RunWithParent(std::function<void()> job) const;

  const CLI::App& App() const { return *app_; }

 private:
  CLI::App* app_;
};

class CommandLine {
 public:
  // `version` is the text that --version prints; empty: there is no such option.
  CommandLine(const std::string& help, const std::string& name, const std::string& version);
  ~CommandLine();

  Command Root();
  // Reads the arguments and does the job, the root's own if there are no commands. Returns 0, 1
  // after a failed job and 2 for wrong usage, with one line on standard error. --help is answered
  // for the last command that stands in front of it, whatever else is missing.
  int Run(int argc, char** argv);

 private:
  std::unique_ptr<CLI::App> app_;
};

}  // namespace tools
