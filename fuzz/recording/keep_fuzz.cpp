// Any bytes as the list of protected spans, as a record list and as an index without a record: what
// is kept is kept, what was lost is dropped once, and nothing is removed unasked.
#include <cstdint>
#include <string>

#include "cms/recording/keep/keep_recordings.h"
#include "cms/recording/keep/protect_recordings.h"
#include "fuzz/support/check.h"
#include "fuzz/support/work_folder.h"

namespace {

constexpr std::size_t kSpan = 32;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::WorkFolder work;
  std::filesystem::create_directories("recordings/day");
  const std::string root = std::filesystem::current_path();
  const std::string bytes(reinterpret_cast<const char*>(data), size);

  fuzz::Put("KeepList0", bytes);
  CHECK(cms::ReadProtectedSpans(root).spans.size() == size / kSpan);
  CHECK(cms::ProtectRecordings(root, {7, 1000, 2000}).empty());
  const auto spans = cms::ReadProtectedSpans(root).spans;
  CHECK(spans.size() == size / kSpan || spans.size() == size / kSpan + 1);
  CHECK(cms::ReleaseRecordings(root, {7, 1200, 1300}).empty());
  for (const auto& each : cms::ReadProtectedSpans(root).spans) {
    CHECK(each.span.site != 7 || each.span.from > 1300 || each.span.to < 1200);
  }

  fuzz::Put("recordings/day/RecordDB", bytes);
  fuzz::Put("recordings/day/Rec_Site1_20240229120000.drv", bytes);
  fuzz::Put("recordings/day/Rec_Site1_20240229120000.idx", bytes);
  const auto before = cms::StorageUse(root);
  CHECK(before.errors.empty() && before.files == 1);
  const auto ended = cms::EndRemovals(root);
  CHECK(ended.errors.empty() && ended.removed.empty() && ended.lostRecords == before.lostRecords);
  CHECK(cms::StorageUse(root).lostRecords == 0);
  const auto kept = cms::KeepRecordings({.root = root, .days = 36'500, .bytes = size * 2});
  CHECK(kept.removal.errors.empty() && kept.storage.files + kept.removal.removed.size() == 1);
  std::filesystem::remove_all("recordings");
  return 0;
}
