#include "tools/data/data_roots.h"

#include <algorithm>
#include <iterator>
#include <tuple>
#include <utility>

#include "cms/recording/data_root.h"
#include "cms/runtime/native_path.h"

namespace tools {

std::vector<cms::RecordingPart> PartsOf(const std::vector<std::string>& roots, std::uint32_t site,
                                        std::int64_t first, std::int64_t last) {
  std::vector<cms::RecordingPart> parts;
  for (const std::string& root : roots) {
    std::ranges::move(cms::RecordingPartsOf(site, first, last, root), std::back_inserter(parts));
  }
  if (roots.size() > 1) {
    std::ranges::stable_sort(parts, {}, &cms::RecordingPart::last);
  }
  return parts;
}

void AddSpans(const std::string& root, std::vector<stPBTimeInfo> spans,
              std::vector<stPBTimeInfo>* all) {
  for (stPBTimeInfo& span : spans) {
    for (auto& record : span.records) {
      record.SetFilenameW(cms::SystemPath(cms::PathInData(record.GetFilenameW(), root)).c_str());
    }
  }
  std::ranges::move(spans, std::back_inserter(*all));
  std::ranges::stable_sort(
      *all, {}, [](const stPBTimeInfo& span) { return std::tuple(span.siteNumber, span.start); });
}

}  // namespace tools
