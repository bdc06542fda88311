#include "fleet/token_log.h"

#include <fstream>
#include <sstream>

#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"

namespace cms::fleet {

TokenLog::TokenLog(const std::string& folder) : path_(folder + "/fleet.tokens") {
  std::ifstream file(path_);
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::uint32_t site = 0;
    Since since;
    if (words >> site >> since.from >> since.token) {
      const ScopeLock lock(lock_);
      sites_[site].push_back(since);
    }
  }
}

void TokenLog::Note(std::uint32_t site, ClaimToken token) {
  const ScopeLock lock(lock_);
  auto& all = sites_[site];
  if (!all.empty() && all.back().token == token) {
    return;
  }
  all.push_back({WallMicroseconds() / 1'000, token});
  unsaved_ += std::to_string(site) + ' ' + std::to_string(all.back().from) + ' ' +
              std::to_string(token) + '\n';
  news_.Signal();
}

void TokenLog::Save() {
  std::string lines;
  {
    const ScopeLock lock(lock_);
    lines.swap(unsaved_);
  }
  std::ofstream file(path_, std::ios::app);
  file << lines;
  if (!file.flush()) {
    Log(LogLevel::kError, "fleet",
        path_ +
            " cannot be written: after a restart another recorder's minutes may be shown in place "
            "of those of this one");
  }
}

std::vector<TokenLog::Since> TokenLog::Of(std::uint32_t site) const {
  const ScopeLock lock(lock_);
  const auto found = sites_.find(site);
  return found == sites_.end() ? std::vector<Since>{} : found->second;
}

ClaimToken TokenLog::At(std::uint32_t site, std::int64_t time) const {
  ClaimToken token = 0;
  for (const Since& since : Of(site)) {
    token = since.from <= time ? since.token : token;
  }
  return token;
}

}  // namespace cms::fleet
