#include "tools/support/options.h"

#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <optional>
#include <utility>

namespace tools {
namespace {

constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

// "orvanta camera" once a subcommand was recognised.
std::string NameOf(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app.get_name() : app.get_name() + " " + chosen.front()->get_name();
}

// "orvanta audio decode" once both were recognised.
const CLI::App& Deepest(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? app : Deepest(*chosen.front());
}

std::vector<const CLI::App*> CommandsOf(const CLI::App& app) {
  return app.get_subcommands([](const CLI::App*) { return true; });
}

// The command whose help is asked for, null when none is. Looked for in front of the parser: to it
// the name of a command whose parent needs an argument first is that argument.
const CLI::App* AskedForHelp(const CLI::App& app, int argc, char** argv) {
  const CLI::App* command = &app;
  for (int i = 1; i < argc; ++i) {
    const std::string given = argv[i];
    if (given == "--help" || given == "-h") {
      return command;
    }
    for (const CLI::App* each : CommandsOf(*command)) {
      if (each->get_name() == given) {
        command = each;
        break;
      }
    }
  }
  return nullptr;
}

void PrintHelp(const CLI::App& command) {
  const std::string before = command.get_parent() != nullptr ? PathOf(*command.get_parent()) : "";
  std::fputs(command.help(before).c_str(), stdout);
}

// What is wrong, in words that name the command or the option.
std::string Explain(const CLI::App& app, const std::string& error) {
  const CLI::App& command = Deepest(app);
  std::string commands;
  for (const CLI::App* each : CommandsOf(command)) {
    commands += (commands.empty() ? "" : ", ") + each->get_name();
  }
  const auto rest = command.remaining();
  if (!commands.empty() && !rest.empty() && !rest.front().starts_with('-')) {
    return "\"" + rest.front() + "\" is none of its commands: " + commands;
  }
  if (!commands.empty() && error == "A subcommand is required") {
    return "one of its commands is missing: " + commands;
  }
  constexpr std::string_view kUnread = "Could not convert: ";
  if (error.starts_with(kUnread)) {
    return error.substr(kUnread.size()) + " is not what it takes";
  }
  return error;
}

// The message on one line, whatever its source put into it.
int Fail(const CLI::App& app, std::string message, const std::string& hint, int status) {
  for (char& each : message) {
    if (each == '\n' || each == '\r') {
      each = ' ';
    }
  }
  message.erase(message.find_last_not_of(' ') + 1);
  std::fprintf(stderr, "%s: %s%s\n", NameOf(app).c_str(), message.c_str(), hint.c_str());
  return status;
}

}  // namespace

std::string PathOf(const CLI::App& command) {
  return command.get_parent() == nullptr ? command.get_name()
                                         : PathOf(*command.get_parent()) + " " + command.get_name();
}

Option Option::Required(bool required) const {
  option_->required(required);
  return *this;
}

Option Option::ShowDefault() const {
  option_->capture_default_str();
  return *this;
}

Option Option::TypeName(const std::string& name) const {
  option_->type_name(name);
  return *this;
}

Option Option::Text(const std::string& text) const {
  option_->option_text(text);
  return *this;
}

template <typename Number>
Option Option::InRange(Number low, Number high) const {
  option_->check(CLI::Range(low, high));
  return *this;
}
template Option Option::InRange(int, int) const;
template Option Option::InRange(unsigned, unsigned) const;
template Option Option::InRange(std::size_t, std::size_t) const;
template Option Option::InRange(double, double) const;

Option Option::Positive() const {
  option_->check(CLI::Validator(
      [](const std::string& text) {
        double number = 0;
        return CLI::detail::lexical_cast(text, number) && number > 0 && std::isfinite(number)
                   ? std::string()
                   : "\"" + text + "\" is not a number above 0";
      },
      "POSITIVE"));
  return *this;
}

Option Option::Port() const {
  return InRange(0, 65535);
}

Option Option::OneOf(const std::vector<std::string>& words) const {
  option_->check(CLI::IsMember(words));
  return *this;
}

Option Option::IPv4() const {
  option_->check(CLI::ValidIPV4);
  return *this;
}

Option Option::IPv4Or(const std::string& word) const {
  option_->check(CLI::ValidIPV4 | CLI::IsMember({word}));
  return *this;
}

Option Option::ExistingFile() const {
  option_->check(CLI::ExistingFile);
  return *this;
}

Option Option::Repeatable() const {
  option_->expected(1, -1)->take_all()->allow_extra_args(false);
  return *this;
}

Option Option::List() const {
  option_->delimiter(',');
  return Repeatable();
}

Option Option::Needs(Option other) const {
  option_->needs(other.option_);
  return *this;
}

Option Option::Needs(const std::string& other) const {
  option_->needs(other);
  return *this;
}

Option Option::Excludes(Option other) const {
  option_->excludes(other.option_);
  return *this;
}

Command Command::Add(const std::string& name, const std::string& help) const {
  return Command(app_->add_subcommand(name, help));
}

void Command::RequireCommand() const {
  app_->require_subcommand(1);
}

template <typename Value>
Option Command::AddOption(const std::string& name, Value& value, const std::string& help) const {
  return Option(app_->add_option(name, value, help));
}
#define ORVANTA_OPTION_VALUE(...) \
  template Option Command::AddOption(const std::string&, __VA_ARGS__&, const std::string&) const
ORVANTA_OPTION_VALUE(std::string);
ORVANTA_OPTION_VALUE(int);
ORVANTA_OPTION_VALUE(long);
ORVANTA_OPTION_VALUE(unsigned);
ORVANTA_OPTION_VALUE(std::uint16_t);
ORVANTA_OPTION_VALUE(std::uint64_t);
ORVANTA_OPTION_VALUE(double);
ORVANTA_OPTION_VALUE(std::vector<std::string>);
ORVANTA_OPTION_VALUE(std::vector<int>);
ORVANTA_OPTION_VALUE(std::vector<unsigned>);
ORVANTA_OPTION_VALUE(std::optional<std::string>);
ORVANTA_OPTION_VALUE(std::optional<int>);
ORVANTA_OPTION_VALUE(std::optional<unsigned>);
ORVANTA_OPTION_VALUE(std::optional<std::uint16_t>);
ORVANTA_OPTION_VALUE(std::optional<float>);
ORVANTA_OPTION_VALUE(std::optional<double>);
#undef ORVANTA_OPTION_VALUE

Option Command::AddFlag(const std::string& name, bool& value, const std::string& help) const {
  return Option(app_->add_flag(name, value, help));
}

Option Command::AddParsed(const std::string& name, std::function<void(const std::string&)> read,
                          const std::string& help) const {
  return Option(app_->add_option_function<std::vector<std::string>>(
                        name,
                        [read = std::move(read)](const std::vector<std::string>& given) {
                          for (const std::string& each : given) {
                            read(each);
                          }
                        },
                        help)
                    ->expected(1));
}

bool Command::Has(const std::string& option) const {
  return app_->count(option) != 0;
}

void Command::Run(std::function<void()> job) const {
  app_->callback(std::move(job));
}

void Command::RunWithParent(std::function<void()> job) const {
  app_->fallthrough();
  app_->final_callback(std::move(job));
}

CommandLine::CommandLine(const std::string& help, const std::string& name,
                         const std::string& version)
    : app_(std::make_unique<CLI::App>(help, name)) {
  if (!version.empty()) {
    app_->set_version_flag("--version", version, "Print the version and exit");
  }
  app_->require_subcommand(0, 1);
}

CommandLine::~CommandLine() = default;

Command CommandLine::Root() {
  return Command(app_.get());
}

int CommandLine::Run(int argc, char** argv) {
  const auto wrong = [this](const std::string& error) {
    return Fail(*app_, error, " (see " + PathOf(Deepest(*app_)) + " --help)", kWrongUsage);
  };
  if (const CLI::App* command = AskedForHelp(*app_, argc, argv)) {
    PrintHelp(*command);
    return 0;
  }
  try {
    app_->parse(argc, argv);
  } catch (const CLI::Success& asked) {  // --version
    return app_->exit(asked);
  } catch (const CLI::ParseError& error) {
    return wrong(Explain(*app_, error.what()));
  } catch (const UsageError& error) {
    return wrong(error.what());
  } catch (const std::exception& error) {
    return Fail(*app_, error.what(), "", kFailed);
  }
  if (!CommandsOf(*app_).empty() && app_->get_subcommands().empty()) {
    return Fail(*app_, "say what to do (see " + app_->get_name() + " --help)", "", kWrongUsage);
  }
  return 0;
}

}  // namespace tools
