#include "cms/httpserver/internal/access_list.h"

#include <algorithm>

namespace cms {

void AccessList::Remove(const AccessRange& range) {
  const auto found = std::find_if(ranges_.begin(), ranges_.end(), [&](const AccessRange& entry) {
    return entry.low == range.low && entry.high == range.high && entry.kind == range.kind;
  });
  if (found != ranges_.end()) {
    ranges_.erase(found);
  }
}

int AccessList::Answer(std::uint32_t address) const {
  int answer = kAccessNotWhite;
  for (const AccessRange& entry : ranges_) {
    if (address < entry.low || address > entry.high) {
      continue;
    }
    if (entry.kind != AccessRange::kWhite) {
      return kAccessBlack;
    }
    answer = kAccessAllowed;
  }
  return answer;
}

}  // namespace cms
