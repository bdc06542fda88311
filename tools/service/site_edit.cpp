#include "tools/service/site_edit.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <toml++/toml.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "cms/streaming/rtsp_url.h"
#include "tools/service/recorder_config.h"
#include "tools/service/reload_signal.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

constexpr mode_t kOwnerAlone = 0600;

std::runtime_error ByHand(const std::string& why) {
  return std::runtime_error(why + ": change the configuration file itself");
}

// A text by its lines, from 1 as the parser counts them.
class TextLines {
 public:
  explicit TextLines(const std::string& text) {
    for (std::size_t at = 0; at < text.size();) {
      const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
      lines_.push_back(text.substr(at, end - at));
      at = end;
    }
  }
  unsigned Count() const { return static_cast<unsigned>(lines_.size()); }
  std::string& At(unsigned line) { return lines_.at(line - 1); }
  void InsertBehind(unsigned line, const std::string& text) {
    std::string& before = At(line);
    before += before.ends_with('\n') ? "" : "\n";
    lines_.insert(lines_.begin() + line, text + "\n");
  }
  void Remove(unsigned first, unsigned last) {
    lines_.erase(lines_.begin() + (first - 1), lines_.begin() + last);
  }
  std::string Text() const {
    std::string text;
    for (const std::string& line : lines_) {
      text += line;
    }
    return text;
  }

 private:
  std::vector<std::string> lines_;
};

// Columns count letters, not bytes.
std::size_t ByteOf(const std::string& line, unsigned column) {
  std::size_t at = 0;
  for (unsigned letter = 1; at < line.size(); ++at) {
    const bool begins = (static_cast<unsigned char>(line[at]) & 0xC0) != 0x80;
    if (begins && letter++ == column) {
      break;
    }
  }
  return at;
}

toml::table Parsed(const std::string& text) {
  try {
    return toml::parse(text);
  } catch (const toml::parse_error& error) {
    throw ByHand("line " + std::to_string(error.source().begin.line) + " cannot be read");
  }
}

toml::array* SitesOf(toml::table& file) {
  toml::array* const sites = file["sites"].as_array();
  if (file.contains("sites") && sites == nullptr) {
    throw ByHand("sites is no list of tables");
  }
  return sites;
}

// Its place among the sites.
std::optional<std::size_t> IndexOfSite(const toml::array* sites, unsigned number) {
  for (std::size_t i = 0; sites != nullptr && i < sites->size(); ++i) {
    const toml::table* const site = sites->get(i)->as_table();
    if (site != nullptr && (*site)["number"].value<std::int64_t>() == number) {
      return i;
    }
  }
  return std::nullopt;
}

// As the file's language writes it.
std::string Written(const SiteValue& value) {
  if (const auto* const text = std::get_if<std::string>(&value)) {
    if (std::any_of(text->begin(), text->end(),
                    [](unsigned char c) { return c < ' ' || c == 0x7F; })) {
      throw std::runtime_error("a text has more than one line, or other control characters");
    }
    std::string written = "\"";
    for (const char c : *text) {
      written += c == '"' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    }
    return written + "\"";
  }
  const auto* const flag = std::get_if<bool>(&value);
  return flag != nullptr ? (*flag ? "true" : "false")
                         : std::to_string(std::get<std::int64_t>(value));
}

void SetKeys(toml::table& site, const SiteKeys& keys) {
  for (const auto& [key, value] : keys) {
    if (value) {
      std::visit([&, &name = key](const auto& each) { site.insert_or_assign(name, each); }, *value);
    } else {
      site.erase(key);
    }
  }
}

// Whatever the lines look like: what was meant is what they say now, and all else what it was.
void RequireTheSame(const std::string& text, const toml::table& meant) {
  if (Parsed(text) != meant) {
    throw ByHand("the site is written in a way that is changed by hand alone");
  }
}

// Where the tables of the file begin, those inside of `own` excepted.
void CollectHeaders(const toml::node& node, const toml::node* own, std::vector<unsigned>* lines) {
  if (&node == own) {
    return;
  }
  if (const toml::table* const table = node.as_table()) {
    if (!table->is_inline()) {
      lines->push_back(table->source().begin.line);
    }
    for (const auto& [key, value] : *table) {
      CollectHeaders(value, own, lines);
    }
  } else if (const toml::array* const array = node.as_array()) {
    for (const toml::node& value : *array) {
      CollectHeaders(value, own, lines);
    }
  }
}

bool IsOfAKey(const std::string& line) {
  const std::size_t first = line.find_first_not_of(" \t\r\n");
  return first != std::string::npos && line[first] != '#';
}

// The last line that says something of it: comments above the next table belong to that.
unsigned LastLineOf(const toml::table& site, const toml::table& file, TextLines& lines) {
  std::vector<unsigned> headers;
  CollectHeaders(file, &site, &headers);
  const unsigned first = site.source().begin.line;
  unsigned last = lines.Count();
  for (const unsigned header : headers) {
    last = header > first ? std::min(last, header - 1) : last;
  }
  while (last > first && !IsOfAKey(lines.At(last))) {
    --last;
  }
  return last;
}

void ChangeKey(TextLines& lines, const toml::table& site, const std::string& key,
               const std::optional<SiteValue>& value) {
  const auto found = site.find(key);
  if (found == site.end()) {
    return;
  }
  const toml::source_region& keyAt = found->first.source();
  const toml::source_region& at = found->second.source();
  if (!value) {
    lines.Remove(keyAt.begin.line, at.end.line);
    return;
  }
  std::string& line = lines.At(at.begin.line);
  const std::string before = line.substr(0, ByteOf(line, at.begin.column));
  const std::string& lastLine = lines.At(at.end.line);
  const std::string behind = lastLine.substr(ByteOf(lastLine, at.end.column));
  line = before + Written(*value) + behind;
  if (at.end.line > at.begin.line) {
    lines.Remove(at.begin.line + 1, at.end.line);
  }
}

std::string NewSite(const std::string& text, unsigned number, const SiteKeys& keys) {
  std::string added = text;
  added += text.empty() || text.ends_with('\n') ? "" : "\n";
  added += "\n[[sites]]\nnumber = " + std::to_string(number) + "\n";
  for (const auto& [key, value] : keys) {
    added += value ? key + " = " + Written(*value) + "\n" : "";
  }
  return added;
}

void WriteBeside(const std::string& path, const std::string& text, const struct stat* like) {
  const std::string fresh = path + ".new";
  unlink(fresh.c_str());
  const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kOwnerAlone);
  bool done = file >= 0;
  for (std::size_t at = 0; done && at < text.size();) {
    const ssize_t some = write(file, text.data() + at, text.size() - at);
    done = some > 0 || (some < 0 && errno == EINTR);
    at += some > 0 ? static_cast<std::size_t>(some) : 0;
  }
  if (done && like != nullptr) {
    done = (like->st_uid == geteuid() || fchown(file, like->st_uid, like->st_gid) == 0) &&
           fchmod(file, like->st_mode & 07777) == 0;
  }
  done = done && fsync(file) == 0 && std::rename(fresh.c_str(), path.c_str()) == 0;
  const int error = errno;
  if (file >= 0) {
    close(file);
  }
  if (!done) {
    unlink(fresh.c_str());
    throw std::runtime_error("cannot write " + path + ": " + std::strerror(error) +
                             ": let the recorder's user write into its folder");
  }
}

}  // namespace

std::string WithSite(const std::string& text, unsigned number, const SiteKeys& keys) {
  const toml::table file = Parsed(text);
  toml::table meant = file;
  toml::array* sites = SitesOf(meant);
  const auto index = IndexOfSite(sites, number);
  if (!index) {
    sites =
        sites != nullptr ? sites : meant.insert("sites", toml::array()).first->second.as_array();
    toml::table site{{"number", std::int64_t{number}}};
    SetKeys(site, keys);
    sites->push_back(std::move(site));
    std::string added = NewSite(text, number, keys);
    RequireTheSame(added, meant);
    return added;
  }
  SetKeys(*sites->get(*index)->as_table(), keys);
  TextLines lines(text);
  const toml::table& site = *file["sites"].as_array()->get(*index)->as_table();
  const auto lineOf = [&](const std::string& key) {
    const auto found = site.find(key);
    return found == site.end() ? 0 : found->first.source().begin.line;
  };
  // From behind: places in front of a change stay where they are. New keys go below the number.
  SiteKeys fromBehind = keys;
  std::stable_sort(fromBehind.begin(), fromBehind.end(),
                   [&](const auto& a, const auto& b) { return lineOf(a.first) > lineOf(b.first); });
  const unsigned below = lineOf("number");
  const auto above = std::find_if(fromBehind.begin(), fromBehind.end(),
                                  [&](const auto& each) { return lineOf(each.first) <= below; });
  for (auto each = fromBehind.begin(); each != above; ++each) {
    ChangeKey(lines, site, each->first, each->second);
  }
  for (auto each = keys.rbegin(); each != keys.rend(); ++each) {
    if (each->second && !site.contains(each->first)) {
      lines.InsertBehind(below, each->first + " = " + Written(*each->second));
    }
  }
  for (auto each = above; each != fromBehind.end(); ++each) {
    ChangeKey(lines, site, each->first, each->second);
  }
  std::string changed = lines.Text();
  RequireTheSame(changed, meant);
  return changed;
}

std::string WithoutSite(const std::string& text, unsigned number) {
  const toml::table file = Parsed(text);
  toml::table meant = file;
  toml::array* const sites = SitesOf(meant);
  const auto index = IndexOfSite(sites, number);
  if (!index) {
    throw std::runtime_error("there is no site " + std::to_string(number));
  }
  sites->erase(sites->begin() + static_cast<std::ptrdiff_t>(*index));
  if (sites->empty()) {
    meant.erase("sites");
  }
  TextLines lines(text);
  const toml::table& site = *file["sites"].as_array()->get(*index)->as_table();
  lines.Remove(site.source().begin.line, LastLineOf(site, file, lines));
  std::string without = lines.Text();
  RequireTheSame(without, meant);
  return without;
}

std::string SiteEditor::ReadLocked() const {
  errno = 0;
  std::ifstream file(path_, std::ios::binary);
  std::ostringstream text;
  if (!file || !fs::is_regular_file(path_)) {
    throw std::runtime_error("cannot read " + path_ + ": " + std::strerror(errno));
  }
  text << file.rdbuf();
  return text.str();
}

void SiteEditor::WriteLocked(const std::string& text) {
  ConfigProblems problems;
  ParseRecorderConfig(text, path_, &problems);
  if (!problems.errors.empty()) {
    throw std::runtime_error(LinesOf(path_, problems.errors).front());
  }
  std::error_code none;
  const fs::path whole = fs::canonical(path_, none);
  struct stat like {};
  if (none || stat(whole.c_str(), &like) != 0) {
    throw std::runtime_error("cannot read " + path_);
  }
  WriteBeside(whole.string(), text, &like);
  AskToReload();
}

unsigned SiteEditor::Add(SiteKeys keys, const std::optional<std::string>& password) {
  const ScopeLock lock(lock_);
  const std::string text = ReadLocked();
  toml::table file = Parsed(text);
  std::int64_t highest = 0;
  if (const toml::array* const sites = SitesOf(file)) {
    for (const toml::node& each : *sites) {
      const toml::table* const site = each.as_table();
      highest = std::max(highest, site == nullptr ? 0 : (*site)["number"].value_or(highest));
    }
  }
  const auto number = static_cast<unsigned>(highest + 1);
  ChangeLocked(text, number, std::move(keys), password);
  return number;
}

void SiteEditor::Change(unsigned number, SiteKeys keys,
                        const std::optional<std::string>& password) {
  const ScopeLock lock(lock_);
  const std::string text = ReadLocked();
  toml::table file = Parsed(text);
  if (!IndexOfSite(SitesOf(file), number)) {
    throw std::runtime_error("there is no site " + std::to_string(number));
  }
  ChangeLocked(text, number, std::move(keys), password);
}

// The password's file gets another name each time, so that both files change with the one rename.
void SiteEditor::ChangeLocked(const std::string& text, unsigned number, SiteKeys keys,
                              const std::optional<std::string>& password) {
  for (const auto& [key, value] : keys) {
    const auto* const url = value ? std::get_if<std::string>(&*value) : nullptr;
    const auto parsed = url != nullptr ? cms::ParseCameraUrl(*url) : std::nullopt;
    if (key == "password" || (parsed && !parsed->password.empty())) {
      throw std::runtime_error("a password goes into a file of its own, not into " + key);
    }
  }
  const fs::path folder = fs::absolute(path_).parent_path();
  const std::string stem = "site-" + std::to_string(number);
  const std::string names[] = {stem + ".password", stem + ".other.password"};
  std::string fresh;
  std::string old;
  if (password) {
    toml::table file = Parsed(text);
    const toml::array* const sites = SitesOf(file);
    if (const auto index = IndexOfSite(sites, number)) {
      old = (*sites->get(*index)->as_table())["password-file"].value_or(std::string());
    }
    for (const char* const other : {"password", "credential", "password-file"}) {
      std::erase_if(keys, [&](const auto& each) { return each.first == other; });
      keys.emplace_back(other, std::nullopt);
    }
    if (!password->empty()) {
      if (password->find_first_of("\r\n") != std::string::npos) {
        throw std::runtime_error("a password has one line");
      }
      fresh = names[0] == old ? names[1] : names[0];
      WriteBeside((folder / fresh).string(), *password + "\n", nullptr);
      keys.back().second = fresh;
    }
  }
  try {
    WriteLocked(WithSite(text, number, keys));
  } catch (...) {
    if (!fresh.empty()) {
      unlink((folder / fresh).c_str());
    }
    throw;
  }
  if (old != fresh && std::find(std::begin(names), std::end(names), old) != std::end(names)) {
    unlink((folder / old).c_str());
  }
}

void SiteEditor::Remove(unsigned number) {
  const ScopeLock lock(lock_);
  WriteLocked(WithoutSite(ReadLocked(), number));
  const fs::path folder = fs::absolute(path_).parent_path();
  const std::string stem = "site-" + std::to_string(number);
  unlink((folder / (stem + ".password")).c_str());
  unlink((folder / (stem + ".other.password")).c_str());
}

}  // namespace tools
