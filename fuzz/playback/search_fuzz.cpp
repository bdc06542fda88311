// Any bytes as record and event lists: the stretches of a site lie in order and apart, each is made
// of records in order, asking again gives the same, and pruning only ever removes.
#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

#include "cms/playback/local_pb_search_engine.h"
#include "fuzz/support/check.h"
#include "fuzz/support/work_folder.h"

namespace {

constexpr std::size_t kRecord = 736;
constexpr std::size_t kEvent = 232;

// Whether `part` is left of `whole` when some of its events are taken out.
bool IsRestOf(const std::string& part, const std::string& whole) {
  std::size_t at = 0;
  for (std::size_t from = 0; from + kEvent <= whole.size() && at < part.size(); from += kEvent) {
    at += part.compare(at, kEvent, whole, from, kEvent) == 0 ? kEvent : 0;
  }
  return at == part.size();
}

std::size_t CheckSpans(const LocalPBSearchEngine& engine) {
  std::map<std::uint32_t, std::int64_t> ends;
  std::size_t records = 0;
  for (const stPBTimeInfo& span : engine.getNormalPBInfo()) {
    CHECK(span.start < span.end && !span.records.empty());
    CHECK(!ends.contains(span.siteNumber) || ends[span.siteNumber] < span.start);
    CHECK(span.records.back().GetEndTime() == span.end);
    CHECK(std::is_sorted(
        span.records.begin(), span.records.end(),
        [](const auto& a, const auto& b) { return a.GetStartTime() < b.GetStartTime(); }));
    ends[span.siteNumber] = span.end;
    records += span.records.size();
  }
  return records;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const fuzz::WorkFolder work;
  std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  fuzz::Put("../EventList0", bytes);
  const std::string field("r\0e\0c\0\\\0R\0e\0c\0o\0r\0d\0D\0B\0\0\0", 26);  // a file that is there
  for (std::size_t at = 0; (data[0] & 1) != 0 && at + kRecord <= bytes.size(); at += kRecord) {
    bytes.replace(at, field.size(), field);
  }
  fuzz::Put("rec/RecordDB", bytes);
  fuzz::Put("../RecFolderDB0", std::string(".\0", 2) + std::string(518, '\0'));

  LocalPBSearchEngine engine;
  engine.setSearchYearAndMonth(1970 + data[1] % 100, 1 + data[1] % 12);
  engine.searchPlaybackInfoForMonth(true);
  const auto days = engine.getMonthInfo();
  CheckSpans(engine);
  engine.searchPlaybackInfoForMonth(false);
  CHECK(days == engine.getMonthInfo());
  engine.searchByInterval(INT64_MIN, INT64_MAX);
  const std::size_t records = CheckSpans(engine);
  engine.searchByInterval(INT64_MIN, INT64_MAX);
  CHECK(CheckSpans(engine) == records);
  engine.loadEventList();
  const std::string before = fuzz::Get("../EventList0");
  engine.searchByInterval(LocalPBSearchEngine::kFullRangeStart, LocalPBSearchEngine::kFullRangeEnd);
  engine.loadEventList();
  const std::string after = fuzz::Get("../EventList0");
  CHECK(after.size() % kEvent == 0 && IsRestOf(after, before));
  CHECK(engine.getEventTimes().size() <= after.size() / kEvent);
  return 0;
}
