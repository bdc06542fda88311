#include "tools/support/manual.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <vector>

namespace tools {
namespace {

// Text of a man page: nothing in it is a request, and "-" is the one that can be copied.
std::string Roff(const std::string& text) {
  std::string safe;
  for (const char c : text) {
    if (c == '\\') {
      safe += "\\e";
    } else if (c == '-') {
      safe += "\\-";
    } else if ((c == '.' || c == '\'') && (safe.empty() || safe.back() == '\n')) {
      safe += std::string("\\&") + c;
    } else {
      safe += c;
    }
  }
  return safe;
}

std::vector<const CLI::App*> ShownSubcommands(const CLI::App& app) {
  std::vector<const CLI::App*> shown;
  for (const CLI::App* each : app.get_subcommands([](const CLI::App*) { return true; })) {
    if (!each->get_name().empty() && !each->get_group().empty()) {
      shown.push_back(each);
    }
  }
  return shown;
}

std::vector<const CLI::Option*> ShownOptions(const CLI::App& app, bool positional) {
  return app.get_options([positional](const CLI::Option* option) {
    return option->get_positional() == positional && !option->get_group().empty();
  });
}

void WriteSynopsis(std::ostream& out, const CLI::App& app) {
  const CLI::Formatter formatter;
  out << ".B " << Roff(PathOf(app)) << "\n";
  if (!ShownOptions(app, false).empty()) {
    out << "[\\fIoptions\\fR]\n";
  }
  for (const CLI::Option* each : ShownOptions(app, true)) {
    out << "\\fI" << Roff(formatter.make_option_usage(each)) << "\\fR\n";
  }
  if (!ShownSubcommands(app).empty()) {
    out << (app.get_require_subcommand_min() > 0 ? "\\fIcommand\\fR ...\n"
                                                 : "[\\fIcommand\\fR ...]\n");
  }
}

void WriteOptions(std::ostream& out, const CLI::App& app) {
  const CLI::Formatter formatter;
  for (const bool positional : {true, false}) {
    for (const CLI::Option* each : ShownOptions(app, positional)) {
      out << ".TP\n\\fB" << Roff(formatter.make_option_name(each, positional)) << "\\fR"
          << Roff(formatter.make_option_opts(each)) << "\n"
          << Roff(formatter.make_option_desc(each)) << "\n";
    }
  }
}

void WriteSubcommands(std::ostream& out, const CLI::App& app) {
  for (const CLI::App* each : ShownSubcommands(app)) {
    out << ".SS " << Roff(PathOf(*each)) << "\n" << Roff(each->get_description()) << ".\n.PP\n";
    WriteSynopsis(out, *each);
    WriteOptions(out, *each);
    WriteSubcommands(out, *each);
  }
}

std::vector<std::string> Split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in, part, separator);) {
    parts.push_back(part);
  }
  return parts;
}

// The words that an option takes, as its help shows them: "TEXT:{udp,tcp}" or "alaw|mulaw".
std::vector<std::string> ChoicesOf(const CLI::Option& option) {
  const std::string shown = CLI::Formatter().make_option_opts(&option);
  const auto open = shown.find('{');
  const auto close = shown.find('}', open);
  if (close != std::string::npos) {
    return Split(shown.substr(open + 1, close - open - 1), ',');
  }
  for (const std::string& word : Split(shown, ' ')) {
    if (word.find('|') != std::string::npos) {
      return Split(word, '|');
    }
  }
  return {};
}

struct Completions {
  std::ostringstream commands;  // patterns that lead from a command to its subcommands
  std::ostringstream values;    // cases of options that take a value
  std::ostringstream words;     // cases of commands: their subcommands and options
};

// `path` is "" for the program itself, "audio decode" below it.
void Collect(const CLI::App& app, const std::string& path, Completions& out) {
  std::string words;
  for (const CLI::Option* each : ShownOptions(app, false)) {
    for (const std::string& name : each->get_lnames()) {
      words += " --" + name;
    }
    if (each->get_items_expected_max() == 0) {
      continue;
    }
    std::string pattern;
    for (const std::string& name : Split(each->get_name(false, true), ',')) {
      pattern += (pattern.empty() ? "\"" : " | \"") + path + ":" + name + "\"";
    }
    out.values << "    " << pattern << ") takes_value=1 words=\"";
    for (const std::string& choice : ChoicesOf(*each)) {
      out.values << choice << " ";
    }
    out.values << "\" ;;\n";
  }
  for (const CLI::App* each : ShownSubcommands(app)) {
    words += " " + each->get_name();
    const std::string below = path.empty() ? each->get_name() : path + " " + each->get_name();
    out.commands << "      \"" << path << " " << each->get_name() << "\") command=\"" << below
                 << "\" ;;\n";
    Collect(*each, below, out);
  }
  out.words << "    \"" << path << "\") words=\"" << words << "\" ;;\n";
}

std::string ManPage(const CLI::App& root, const CLI::App& command, const std::string& date) {
  const bool isRoot = &root == &command;
  std::string page = PathOf(command);
  std::replace(page.begin(), page.end(), ' ', '-');
  std::ostringstream out;
  out << ".TH " << Roff(page) << " 1 \"" << Roff(date) << "\" \"" << Roff(root.version())
      << "\" \"User Commands\"\n"
      << ".SH NAME\n"
      << Roff(page) << " \\- " << Roff(command.get_description()) << "\n.SH SYNOPSIS\n";
  WriteSynopsis(out, command);
  out << ".SH DESCRIPTION\n" << Roff(command.get_description()) << ".\n";
  if (isRoot) {
    out << "Each command has a page of its own.\n";
    for (const CLI::App* each : ShownSubcommands(root)) {
      out << ".TP\n\\fB" << Roff(PathOf(*each)) << "\\fR\n"
          << Roff(each->get_description()) << "\n";
    }
  }
  out << ".SH OPTIONS\n";
  WriteOptions(out, command);
  if (!isRoot && !ShownSubcommands(command).empty()) {
    out << ".SH COMMANDS\n";
    WriteSubcommands(out, command);
  }
  if (const std::string footer = command.get_footer(); !footer.empty()) {
    out << ".SH NOTES\n" << Roff(footer) << "\n";
  }
  out << ".SH EXIT STATUS\n"
         "0 when the job is done, 1 when it failed, 2 for wrong usage. What is wrong is told in\n"
         "one line on standard error.\n"
         ".SH SEE ALSO\n";
  if (isRoot) {
    std::string separator;
    for (const CLI::App* each : ShownSubcommands(root)) {
      out << separator << "\\fB" << Roff(page + "-" + each->get_name()) << "\\fR(1)";
      separator = ",\n";
    }
    out << "\n";
  } else {
    out << "\\fB" << Roff(root.get_name()) << "\\fR(1)\n";
  }
  return out.str();
}

}  // namespace

std::map<std::string, std::string> ManPages(Command root, const std::string& date) {
  const CLI::App& app = root.App();
  std::map<std::string, std::string> pages = {{app.get_name(), ManPage(app, app, date)}};
  for (const CLI::App* each : ShownSubcommands(app)) {
    pages[app.get_name() + "-" + each->get_name()] = ManPage(app, *each, date);
  }
  return pages;
}

std::string BashCompletion(Command command) {
  const CLI::App& root = command.App();
  Completions completions;
  Collect(root, "", completions);
  const std::string& name = root.get_name();
  return "# bash completion of " + name + ", made of its own options\n_" + name +
         "() {\n"
         "  local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}\n"
         "  local command= words= takes_value= word\n"
         "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
         "    case \"$command $word\" in\n" +
         completions.commands.str() +
         "    esac\n"
         "  done\n"
         "  case \"$command:$previous\" in\n" +
         completions.values.str() +
         "  esac\n"
         "  [[ -n $takes_value ]] || case $command in\n" +
         completions.words.str() +
         "  esac\n"
         "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
         "}\n"
         "complete -o default -F _" +
         name + " " + name + "\n";
}

}  // namespace tools
