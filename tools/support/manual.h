// Man pages and shell completion, made of the command line's own tree of subcommands and options.
#pragma once

#include <map>
#include <string>

#include "tools/support/options.h"

namespace tools {

// Pages by name, for man(7) formatters: the program's, and one of each of its commands, whose own
// commands are sections of it. `date` is the version's, so that equal sources give equal pages.
std::map<std::string, std::string> ManPages(Command root, const std::string& date);

// What bash sources to complete commands, options and the words that an option takes; where it
// takes a file or anything else, bash completes names of files.
std::string BashCompletion(Command root);

}  // namespace tools
