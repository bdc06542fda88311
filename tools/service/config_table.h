// Reading the tables of a configuration file: what each key may hold, and what is told when it does
// not. The parser of the file's language is behind this and site_edit alone.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace tools {

struct ConfigProblem {
  unsigned line = 0;  // from 1; 0: of the file as a whole
  unsigned column = 0;
  std::string what;  // for people: what was found, and what was expected
};

// All that is wrong with a file, in the order of its lines once it is sorted.
struct ConfigProblems {
  std::vector<ConfigProblem> errors;
  std::vector<ConfigProblem> warnings;
};

// One table of the file. Whoever reads a key has said that it belongs there: RefuseOthers tells of
// the rest. What is wrong goes to the problems that Parse was given, which outlive the table, and
// reads as if it were missing. Copies share what they know. One thread.
class ConfigTable {
 public:
  // Nothing for what is not of the file's language (TOML 1.0), which is told.
  static std::optional<ConfigTable> Parse(std::string_view text, ConfigProblems* problems);

  bool Has(std::string_view key) const;

  std::optional<std::string> Text(std::string_view key) const;  // an empty one is wrong
  std::optional<bool> Flag(std::string_view key) const;
  std::optional<std::int64_t> Number(std::string_view key, std::int64_t low,
                                     std::int64_t high) const;
  // Bytes: a whole number, or a text such as "500 GB" or "64 MiB".
  std::optional<std::uint64_t> Size(std::string_view key) const;
  // The index of one of the words.
  std::optional<std::size_t> OneOf(std::string_view key,
                                   const std::vector<std::string>& words) const;
  std::vector<std::string> Texts(std::string_view key) const;  // one text, or an array of them
  std::optional<ConfigTable> Table(std::string_view key) const;
  std::vector<ConfigTable> Tables(std::string_view key) const;           // [[key]], or an array
  std::vector<std::pair<std::string, ConfigTable>> NamedTables() const;  // [this.NAME]

  // Tells of every key that was not read, and which one may have been meant.
  void RefuseOthers() const;

  // Tells what is wrong with the key's value, or, without such a key, with the table.
  void Wrong(std::string_view key, const std::string& what) const;
  void Warn(std::string_view key, const std::string& what) const;

 private:
  struct Node;
  explicit ConfigTable(std::shared_ptr<Node> node) : node_(std::move(node)) {}
  ConfigProblem Problem(std::string_view key, const std::string& what) const;

  std::shared_ptr<Node> node_;
};

}  // namespace tools
