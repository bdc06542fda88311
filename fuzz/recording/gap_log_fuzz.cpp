// Any bytes as the gap log: readers give the whole records, and a writer adds its own and ends what
// its site left open without changing anything else.
#include <cstdint>
#include <string>

#include "cms/recording/gap_log.h"
#include "fuzz/support/check.h"
#include "fuzz/support/work_folder.h"

namespace {

constexpr std::size_t kRecord = 232;
constexpr std::size_t kTo = 216;
constexpr const char* kLog = "../GapLog0";

bool IsSame(const std::string& a, const std::string& b, std::size_t at) {
  return a.compare(at, kTo, b, at, kTo) == 0 && a.compare(at + 224, 8, b, at + 224, 8) == 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const fuzz::WorkFolder work;
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const std::string whole = bytes.substr(0, size / kRecord * kRecord);
  fuzz::Put(kLog, bytes);
  const auto before = cms::ReadGapLog(0);
  CHECK(before.rows.size() == size / kRecord && before.tornBytes == size % kRecord);
  for (const auto& row : before.rows) {
    CHECK(!cms::GapCauseName(row.cause).empty());
  }

  cms::GapLogWriter writer;
  writer.SetSite({1, L"a", L"b", 554});
  writer.EndAbandoned(1000);
  writer.Begin(cms::GapCause::kDiskFull, 2000, 28);
  writer.Update(3000);
  writer.End(4000);
  const std::string after = fuzz::Get(kLog);
  CHECK(after.size() == whole.size() + kRecord);
  const auto rows = cms::ReadGapLog(0).rows;
  for (std::size_t i = 0; i < before.rows.size(); ++i) {
    CHECK(IsSame(after, whole, i * kRecord));
    CHECK(rows[i].to == before.rows[i].to ||
          (before.rows[i].to == 0 && rows[i].siteNumber == 1 && rows[i].to >= rows[i].from));
  }
  CHECK(rows.back().from == 2000 && rows.back().to == 4000 && rows.back().error == 28);
  return 0;
}
