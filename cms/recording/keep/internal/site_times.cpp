#include "cms/recording/keep/internal/site_times.h"

#include <algorithm>
#include <iterator>

namespace cms {

void SiteTimes::Add(std::uint32_t site, std::int64_t from, std::int64_t to) {
  auto& spans = sites_[site];
  to = std::max(from, to);
  auto at = spans.upper_bound(from);
  if (at != spans.begin() && std::prev(at)->second >= from) {
    --at;
    from = at->first;
  }
  while (at != spans.end() && at->first <= to) {
    to = std::max(to, at->second);
    at = spans.erase(at);
  }
  spans.emplace_hint(at, from, to);
}

bool SiteTimes::Touches(std::uint32_t site, std::int64_t from, std::int64_t to) const {
  const auto found = sites_.find(site);
  if (found == sites_.end()) {
    return false;
  }
  const auto behind = found->second.upper_bound(std::max(from, to));
  return behind != found->second.begin() && std::prev(behind)->second >= from;
}

bool SiteTimes::Covers(std::uint32_t site, std::int64_t from, std::int64_t to) const {
  const auto found = sites_.find(site);
  if (found == sites_.end()) {
    return false;
  }
  const auto behind = found->second.upper_bound(from);
  return behind != found->second.begin() && std::prev(behind)->second >= std::max(from, to);
}

}  // namespace cms
