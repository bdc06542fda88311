// What was done on the page, by whom and from where.
#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "cms/runtime/critical.h"

namespace tools {

// Lines of JSON at the end of a file, which is opened for each: it may be moved away at any time.
// Any thread; waits for the disk. A disk that takes nothing is told in the log, and stops nobody.
class Audit {
 public:
  // Empty: nothing is kept. Throws std::runtime_error when the file cannot be written.
  explicit Audit(std::string path);

  // With the time in front: {"time": "2026-11-22T10:00:00Z", ...}.
  void Write(const nlohmann::ordered_json& what);
  // The last lines, the latest first; of a long file those of its last quarter of a megabyte.
  std::vector<nlohmann::ordered_json> Latest(std::size_t lines) const;
  bool IsKept() const { return !path_.empty(); }

 private:
  bool Append(const std::string& line) CMS_REQUIRES(lock_);

  const std::string path_;
  mutable CMSCritical lock_;
  bool torn_ CMS_GUARDED_BY(lock_) = false;  // the file ends within a line
};

// Tells the beginning of what is asked for again and again while it lasts. Any thread.
class Beginnings {
 public:
  using Clock = std::chrono::steady_clock;
  // False while the same was asked for within the last 10 s.
  bool IsOne(const std::string& what, Clock::time_point now = Clock::now());

 private:
  CMSCritical lock_;
  std::map<std::string, Clock::time_point> last_ CMS_GUARDED_BY(lock_);
};

}  // namespace tools
