// Sites of a recorder's configuration file that programs add, change and remove.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"

namespace tools {

using SiteValue = std::variant<std::string, bool, std::int64_t>;
// Keys of [[sites]]; without a value the key goes.
using SiteKeys = std::vector<std::pair<std::string, std::optional<SiteValue>>>;

// The text of a configuration file with the site's keys as given, or a new site at its end. All
// else stays as it was, comments and order too. Throws std::runtime_error, which says what to do,
// when the text cannot be read, and when it is written in a way that people alone can change.
std::string WithSite(const std::string& text, unsigned number, const SiteKeys& keys);
// The same without that site.
std::string WithoutSite(const std::string& text, unsigned number);

// Of one file, whose recorder runs in this process: it follows at once, and sites that are as they
// were lose no frame. What it would refuse is not written. Any thread; waits for the disk. Each
// throws std::runtime_error, which says why nothing was changed; no password is in it.
class SiteEditor {
 public:
  explicit SiteEditor(std::string path) : path_(std::move(path)) {}

  // A new one, with the number behind the highest. Returns that.
  unsigned Add(SiteKeys keys, const std::optional<std::string>& password);
  // Keys that are not given stay. `password` goes into a file of its own beside the configuration,
  // which its owner alone can read; an empty one: there is none any more; nothing: as it was.
  void Change(unsigned number, SiteKeys keys, const std::optional<std::string>& password);
  void Remove(unsigned number);  // what it recorded stays, as long as retention lets it

 private:
  void ChangeLocked(const std::string& text, unsigned number, SiteKeys keys,
                    const std::optional<std::string>& password) CMS_REQUIRES(lock_);
  void WriteLocked(const std::string& text) CMS_REQUIRES(lock_);
  std::string ReadLocked() const CMS_REQUIRES(lock_);

  CMSCritical lock_;
  const std::string path_ CMS_GUARDED_BY(lock_);  // changed by one at a time
};

}  // namespace tools
