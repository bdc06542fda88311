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

// Records are kept in the stretches that they will be part of, as long as they come in the order of
// time, which they nearly always do: all records of years are much memory, and exist once.
class PlaybackSpans {
 public:
  void Clear();

  // Sites are kept in the order of their first records.
  void Add(const FX_RecordDBInfo& record);

  // Makes the stretches of what was added. Records count by their start (those of one start in the
  // order of Add).
  void Join();

  bool Joined() const { return joined_; }  // since the last Clear
  const std::vector<stPBTimeInfo>& Spans() const { return spans_; }

  // The first stretch of the site that has a moment in common with these times; null when there is
  // none.
  const stPBTimeInfo* Overlapping(std::uint32_t site, std::int64_t start, std::int64_t end) const;

 private:
  struct Site {
    std::uint32_t number = 0;
    bool inOrder = true;
    // Records in the order of Add; each list ends where the next record is apart from it.
    std::vector<std::vector<FX_RecordDBInfo>> stretches;
    std::size_t first = 0;  // of `spans_`, once joined
    std::size_t behind = 0;
  };

  static void Append(Site& site, const FX_RecordDBInfo& record);
  static void Sort(Site& site);

  std::unordered_map<std::uint32_t, std::size_t> siteOf_;  // number -> index
  std::vector<Site> sites_;
  std::vector<stPBTimeInfo> spans_;
  bool joined_ = false;
};

}  // namespace cms
