// PlaybackSpans: the records of each site joined to stretches of playback.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <unordered_map>
#include <vector>

#include "cms/playback/search_results.h"
#include "cms/recording/record_db_info.h"

namespace cms {

class PlaybackSpans {
 public:
  void Clear();

  // Sites are kept in the order of their first records.
  void Add(const FX_RecordDBInfo& record);

  // Sorts each site's records by their start (records of one start stay in the order of Add) and
  // makes the stretches of them. The records are used up.
  void Join();

  bool Joined() const { return joined_; }  // since the last Clear
  const std::vector<stPBTimeInfo>& Spans() const { return spans_; }

  // The first stretch of the site that has a moment in common with these times; null when there is
  // none.
  const stPBTimeInfo* Overlapping(std::uint32_t site, std::int64_t start, std::int64_t end) const;

 private:
  struct Range {
    std::size_t first = 0;
    std::size_t last = 0;  // behind
  };

  void JoinSite(std::span<const FX_RecordDBInfo> records);

  std::unordered_map<std::uint32_t, std::size_t> groupOfSite_;
  std::vector<std::vector<FX_RecordDBInfo>> groups_;
  std::vector<stPBTimeInfo> spans_;
  std::unordered_map<std::uint32_t, Range> spansOfSite_;
  bool joined_ = false;
};

}  // namespace cms
