#include "tools/service/config_table.h"

#include <toml++/toml.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <numeric>
#include <set>
#include <sstream>

namespace tools {
namespace {

constexpr struct {
  std::string_view unit;
  std::uint64_t bytes;
} kSizeUnits[] = {
    {"B", 1},
    {"kB", 1'000},
    {"MB", 1'000'000},
    {"GB", 1'000'000'000},
    {"KiB", 1ULL << 10},
    {"MiB", 1ULL << 20},
    {"GiB", 1ULL << 30},
    {"TB", 1'000'000'000'000},
    {"TiB", 1ULL << 40},
};

// How many letters must change, go or come (Levenshtein).
std::size_t LettersApart(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i;
    for (std::size_t j = 1; j <= b.size(); ++j) {
      const std::size_t changed = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = row[j];
      row[j] = std::min({changed, row[j] + 1, row[j - 1] + 1});
    }
  }
  return row[b.size()];
}

std::string NearestOf(const std::set<std::string, std::less<>>& known, std::string_view key) {
  std::string nearest;
  std::size_t best = std::max<std::size_t>(2, key.size() / 3) + 1;
  for (const std::string& each : known) {
    if (const std::size_t apart = LettersApart(each, key); apart < best) {
      best = apart;
      nearest = each;
    }
  }
  return nearest;
}

std::string ListOf(const std::vector<std::string>& words) {
  std::string list;
  for (std::size_t i = 0; i < words.size(); ++i) {
    list += i == 0 ? "" : i + 1 == words.size() ? " or " : ", ";
    list += "\"" + words[i] + "\"";
  }
  return list;
}

// What stands there, as it would be written.
std::string FoundIn(const toml::node& node) {
  constexpr std::size_t kLongest = 60;
  std::ostringstream text;
  switch (node.type()) {
    case toml::node_type::table:
      return "a table";
    case toml::node_type::array:
      return "an array";
    case toml::node_type::string:
      text << '"' << **node.as_string() << '"';
      break;
    default:
      node.visit([&text](const auto& value) {
        if constexpr (toml::is_value<decltype(value)>) {
          text << value;
        }
      });
  }
  const std::string found = text.str();
  return found.size() > kLongest ? found.substr(0, kLongest) + "...\"" : found;
}

std::optional<std::uint64_t> ReadSize(std::string_view text) {
  std::uint64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc{}) {
    return std::nullopt;
  }
  std::string_view unit(end, static_cast<std::size_t>(text.data() + text.size() - end));
  unit.remove_prefix(std::min(unit.find_first_not_of(' '), unit.size()));
  for (const auto& each : kSizeUnits) {
    if (unit == each.unit && number <= INT64_MAX / each.bytes) {
      return number * each.bytes;
    }
  }
  return std::nullopt;
}

}  // namespace

struct ConfigTable::Node {
  std::shared_ptr<const toml::table> root;  // owns all of it
  const toml::table* table = nullptr;
  std::string name;  // "[[sites]]"; empty: the file itself
  ConfigProblems* problems = nullptr;
  std::set<std::string, std::less<>> read;

  const toml::node* Read(std::string_view key) {
    read.emplace(key);
    return table->get(key);
  }
  std::shared_ptr<Node> Below(const toml::table& below, std::string called) const {
    return std::make_shared<Node>(Node{root, &below, std::move(called), problems, {}});
  }
};

std::optional<ConfigTable> ConfigTable::Parse(std::string_view text, ConfigProblems* problems) {
  try {
    auto node = std::make_shared<Node>();
    node->root = std::make_shared<const toml::table>(toml::parse(text));
    node->table = node->root.get();
    node->problems = problems;
    return ConfigTable(std::move(node));
  } catch (const toml::parse_error& error) {
    const auto& at = error.source().begin;
    problems->errors.push_back(
        {at.line, at.column, "cannot be read: " + std::string(error.description())});
    return std::nullopt;
  }
}

ConfigProblem ConfigTable::Problem(std::string_view key, const std::string& what) const {
  const toml::node* const value = node_->table->get(key);
  const auto& at = (value != nullptr ? value : node_->table)->source().begin;
  std::string where = node_->name;
  if (!key.empty()) {
    where += (where.empty() ? "" : " ") + std::string(key);
  }
  return {at.line, at.column, where.empty() ? what : where + ": " + what};
}

void ConfigTable::Wrong(std::string_view key, const std::string& what) const {
  node_->problems->errors.push_back(Problem(key, what));
}

void ConfigTable::Warn(std::string_view key, const std::string& what) const {
  node_->problems->warnings.push_back(Problem(key, what));
}

bool ConfigTable::Has(std::string_view key) const {
  return node_->Read(key) != nullptr;
}

std::optional<std::string> ConfigTable::Text(std::string_view key) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  if (!value->is_string() || value->as_string()->get().empty()) {
    Wrong(key, "found " + FoundIn(*value) + ", expected a text in quotation marks");
    return std::nullopt;
  }
  return value->as_string()->get();
}

std::optional<bool> ConfigTable::Flag(std::string_view key) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  if (!value->is_boolean()) {
    Wrong(key, "found " + FoundIn(*value) + ", expected true or false");
    return std::nullopt;
  }
  return value->as_boolean()->get();
}

std::optional<std::int64_t> ConfigTable::Number(std::string_view key, std::int64_t low,
                                                std::int64_t high) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  const auto* const number = value->as_integer();
  if (number == nullptr || number->get() < low || number->get() > high) {
    Wrong(key, "found " + FoundIn(*value) + ", expected a whole number from " +
                   std::to_string(low) + " to " + std::to_string(high));
    return std::nullopt;
  }
  return number->get();
}

std::optional<std::uint64_t> ConfigTable::Size(std::string_view key) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  if (value->is_integer() && value->as_integer()->get() >= 0) {
    return static_cast<std::uint64_t>(value->as_integer()->get());
  }
  const auto size = value->is_string() ? ReadSize(value->as_string()->get()) : std::nullopt;
  if (!size) {
    Wrong(key, "found " + FoundIn(*value) +
                   ", expected a size such as \"500 GB\" (B, kB, MB, GB, TB, KiB, MiB, GiB, TiB)");
  }
  return size;
}

std::optional<std::size_t> ConfigTable::OneOf(std::string_view key,
                                              const std::vector<std::string>& words) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  const auto found = value->is_string()
                         ? std::find(words.begin(), words.end(), value->as_string()->get())
                         : words.end();
  if (found == words.end()) {
    Wrong(key, "found " + FoundIn(*value) + ", expected " + ListOf(words));
    return std::nullopt;
  }
  return static_cast<std::size_t>(found - words.begin());
}

std::vector<std::string> ConfigTable::Texts(std::string_view key) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return {};
  }
  if (value->is_string()) {
    return {value->as_string()->get()};
  }
  std::vector<std::string> texts;
  const toml::array* const array = value->as_array();
  for (std::size_t i = 0; array != nullptr && i < array->size(); ++i) {
    if (const auto* const text = array->get(i)->as_string()) {
      texts.push_back(text->get());
    }
  }
  if (array == nullptr || texts.size() != array->size()) {
    Wrong(key, "found " + FoundIn(*value) + ", expected texts such as [\"one\", \"two\"]");
    return {};
  }
  return texts;
}

std::optional<ConfigTable> ConfigTable::Table(std::string_view key) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return std::nullopt;
  }
  if (!value->is_table()) {
    Wrong(key, "found " + FoundIn(*value) + ", expected a table: [" + std::string(key) + "]");
    return std::nullopt;
  }
  const std::string name =
      node_->name.empty() ? "[" + std::string(key) + "]" : node_->name + " " + std::string(key);
  return ConfigTable(node_->Below(*value->as_table(), name));
}

std::vector<ConfigTable> ConfigTable::Tables(std::string_view key) const {
  const toml::node* const value = node_->Read(key);
  if (value == nullptr) {
    return {};
  }
  const toml::array* const array = value->as_array();
  const std::string name =
      (node_->name.empty() ? "" : node_->name + " ") + "[[" + std::string(key) + "]]";
  std::vector<ConfigTable> tables;
  for (std::size_t i = 0; array != nullptr && i < array->size(); ++i) {
    if (const toml::table* const each = array->get(i)->as_table()) {
      tables.push_back(ConfigTable(node_->Below(*each, name)));
    }
  }
  if (array == nullptr || tables.size() != array->size()) {
    Wrong(key, "found " + FoundIn(*value) + ", expected tables: " + name);
    return {};
  }
  return tables;
}

std::vector<std::pair<std::string, ConfigTable>> ConfigTable::NamedTables() const {
  std::vector<std::pair<std::string, ConfigTable>> tables;
  for (const auto& [key, value] : *node_->table) {
    if (const auto table = Table(key.str())) {
      tables.emplace_back(key.str(), *table);
    }
  }
  return tables;
}

void ConfigTable::RefuseOthers() const {
  for (const auto& [key, value] : *node_->table) {
    if (node_->read.contains(key.str())) {
      continue;
    }
    const std::string nearest = NearestOf(node_->read, key.str());
    const std::string of = node_->name.empty()
                               ? "there is no such key"
                               : node_->name + " has no key \"" + std::string(key.str()) + "\"";
    const std::string what = node_->name.empty() ? std::string(key.str()) + ": " + of : of;
    const auto& at = key.source().begin;
    node_->problems->errors.push_back(
        {at.line, at.column, nearest.empty() ? what : what + "; is \"" + nearest + "\" meant?"});
  }
}

}  // namespace tools
