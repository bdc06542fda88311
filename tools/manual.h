// Man pages and shell completion, made of the command line's own tree of subcommands and options.
#pragma once

#include <CLI/CLI.hpp>
#include <string>

namespace tools {

// The page of the program, or of one of its subcommands, whose own subcommands are sections of it;
// for man(7) formatters. No date is in it, so that equal sources give equal pages.
std::string ManPage(const CLI::App& root, const CLI::App& command);

// What bash sources to complete subcommands, options and the words that an option takes; where it
// takes a file or anything else, bash completes names of files.
std::string BashCompletion(const CLI::App& root);

}  // namespace tools
