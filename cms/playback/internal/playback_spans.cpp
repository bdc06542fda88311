#include "cms/playback/internal/playback_spans.h"

#include <algorithm>
#include <numeric>

namespace cms {

namespace {

constexpr std::size_t kRoomForSpans = 1024;

// Whether `start` is more than a second behind `end`; records may hold any numbers.
bool IsApart(std::int64_t start, std::int64_t end) {
  return start > end && static_cast<std::uint64_t>(start) - static_cast<std::uint64_t>(end) > 1;
}

void Append(stPBTimeInfo& span, const FX_RecordDBInfo& record) {
  if (!span.records.empty() && record.GetStartTime() <= span.end) {
    // The last one gives way; nothing is left of it when it does not begin earlier.
    auto& last = span.records.back();
    if (record.GetStartTime() > last.GetStartTime()) {
      last.SetEndTime(record.GetStartTime() - 1);
    } else {
      span.records.pop_back();
    }
  }
  span.end = record.GetEndTime();
  span.records.push_back(record);
}

}  // namespace

void PlaybackSpans::Clear() {
  groupOfSite_.clear();
  groups_.clear();
  spans_.clear();
  spansOfSite_.clear();
  joined_ = false;
}

void PlaybackSpans::Add(const FX_RecordDBInfo& record) {
  const auto [group, added] = groupOfSite_.try_emplace(record.GetSiteNumber(), groups_.size());
  if (added) {
    groups_.emplace_back();
  }
  groups_[group->second].push_back(record);
}

void PlaybackSpans::Join() {
  spans_.reserve(kRoomForSpans);
  for (auto& group : groups_) {
    const std::size_t first = spans_.size();
    JoinSite(group);
    spansOfSite_[group.front().GetSiteNumber()] = {first, spans_.size()};
    group = {};  // the stretches hold copies, and both of all sites would be much memory
  }
  groups_.clear();
  groupOfSite_.clear();
  joined_ = true;
}

void PlaybackSpans::JoinSite(std::span<const FX_RecordDBInfo> records) {
  std::vector<std::size_t> order(records.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&](std::size_t a, std::size_t b) {
    return records[a].GetStartTime() < records[b].GetStartTime();
  });
  for (std::size_t at = 0; at < order.size();) {
    std::size_t behind = at + 1;
    while (behind < order.size() && !IsApart(records[order[behind]].GetStartTime(),
                                             records[order[behind - 1]].GetEndTime())) {
      ++behind;
    }
    stPBTimeInfo& span = spans_.emplace_back();
    span.siteNumber = records[order[at]].GetSiteNumber();
    span.start = records[order[at]].GetStartTime();
    span.records.reserve(behind - at);
    for (; at < behind; ++at) {
      Append(span, records[order[at]]);
    }
  }
}

const stPBTimeInfo* PlaybackSpans::Overlapping(std::uint32_t site, std::int64_t start,
                                               std::int64_t end) const {
  const auto range = spansOfSite_.find(site);
  if (range == spansOfSite_.end()) {
    return nullptr;
  }
  // The stretches of a site lie one behind the other: the first that ends behind the start is the
  // first that can overlap, and no later one begins earlier.
  const auto begin = spans_.begin() + static_cast<std::ptrdiff_t>(range->second.first);
  const auto behind = spans_.begin() + static_cast<std::ptrdiff_t>(range->second.last);
  const auto found =
      std::upper_bound(begin, behind, start,
                       [](std::int64_t time, const stPBTimeInfo& span) { return time < span.end; });
  return found != behind && std::max(start, found->start) < std::min(end, found->end) ? &*found
                                                                                      : nullptr;
}

}  // namespace cms
