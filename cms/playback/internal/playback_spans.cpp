#include "cms/playback/internal/playback_spans.h"

#include <algorithm>
#include <utility>

namespace cms {

namespace {

constexpr std::size_t kRoomForSpans = 1024;

// Whether `start` is more than a second behind `end`; records may hold any numbers.
bool IsApart(std::int64_t start, std::int64_t end) {
  return start > end && static_cast<std::uint64_t>(start) - static_cast<std::uint64_t>(end) > 1;
}

// Records that play one after the other: each that is overlapped by the next gives way, and is
// taken out when it does not begin earlier.
void PutInTurn(std::vector<FX_RecordDBInfo>& records) {
  std::size_t kept = 0;
  for (std::size_t i = 0; i < records.size(); ++i) {
    auto& record = records[i];
    if (i + 1 < records.size() && records[i + 1].GetStartTime() <= record.GetEndTime()) {
      if (records[i + 1].GetStartTime() == record.GetStartTime()) {
        continue;
      }
      record.SetEndTime(records[i + 1].GetStartTime() - 1);
    }
    if (kept != i) {
      records[kept] = record;
    }
    ++kept;
  }
  records.erase(records.begin() + static_cast<std::ptrdiff_t>(kept), records.end());
}

}  // namespace

void PlaybackSpans::Clear() {
  siteOf_.clear();
  sites_.clear();
  spans_.clear();
  joined_ = false;
}

void PlaybackSpans::Add(const FX_RecordDBInfo& record) {
  const auto [index, added] = siteOf_.try_emplace(record.GetSiteNumber(), sites_.size());
  if (added) {
    sites_.emplace_back().number = record.GetSiteNumber();
  }
  Append(sites_[index->second], record);
}

void PlaybackSpans::Append(Site& site, const FX_RecordDBInfo& record) {
  if (!site.stretches.empty()) {
    const auto& last = site.stretches.back().back();
    site.inOrder = site.inOrder && last.GetStartTime() <= record.GetStartTime();
    if (!IsApart(record.GetStartTime(), last.GetEndTime())) {
      site.stretches.back().push_back(record);
      return;
    }
  }
  site.stretches.emplace_back().push_back(record);
}

void PlaybackSpans::Sort(Site& site) {
  const auto stretches = std::exchange(site.stretches, {});
  std::vector<const FX_RecordDBInfo*> order;
  for (const auto& stretch : stretches) {
    for (const auto& record : stretch) {
      order.push_back(&record);
    }
  }
  std::ranges::stable_sort(order, {}, &FX_RecordDBInfo::GetStartTime);
  for (const FX_RecordDBInfo* record : order) {
    Append(site, *record);
  }
}

void PlaybackSpans::Join() {
  spans_.reserve(kRoomForSpans);
  for (Site& site : sites_) {
    if (!site.inOrder) {
      Sort(site);
    }
    site.first = spans_.size();
    for (auto& records : site.stretches) {
      stPBTimeInfo& span = spans_.emplace_back();
      span.siteNumber = site.number;
      span.start = records.front().GetStartTime();
      span.end = records.back().GetEndTime();
      PutInTurn(records);
      span.records = std::move(records);
    }
    site.stretches = {};
    site.behind = spans_.size();
  }
  joined_ = true;
}

const stPBTimeInfo* PlaybackSpans::Overlapping(std::uint32_t site, std::int64_t start,
                                               std::int64_t end) const {
  const auto index = siteOf_.find(site);
  if (index == siteOf_.end()) {
    return nullptr;
  }
  const Site& range = sites_[index->second];
  // The stretches of a site lie one behind the other: the first that ends behind the start is the
  // first that can overlap, and no later one begins earlier.
  const auto begin = spans_.begin() + static_cast<std::ptrdiff_t>(range.first);
  const auto behind = spans_.begin() + static_cast<std::ptrdiff_t>(range.behind);
  const auto found =
      std::upper_bound(begin, behind, start,
                       [](std::int64_t time, const stPBTimeInfo& span) { return time < span.end; });
  return found != behind && std::max(start, found->start) < std::min(end, found->end) ? &*found
                                                                                      : nullptr;
}

}  // namespace cms
