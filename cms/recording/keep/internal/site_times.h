// SiteTimes: which times of which sites something covers.
#pragma once

#include <cstdint>
#include <map>

namespace cms {

// Seconds since 1970-01-01 UTC, both ends belong to a span. Spans that touch become one. Not for
// two threads at once.
class SiteTimes {
 public:
  void Add(std::uint32_t site, std::int64_t from, std::int64_t to);
  bool Touches(std::uint32_t site, std::int64_t from, std::int64_t to) const;
  bool Covers(std::uint32_t site, std::int64_t from, std::int64_t to) const;  // all of it
  bool IsEmpty() const { return sites_.empty(); }

 private:
  std::map<std::uint32_t, std::map<std::int64_t, std::int64_t>> sites_;  // from -> to
};

}  // namespace cms
