// By which claims a recorder recorded what it holds, in a file beside the recordings.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/runtime/wake_up.h"
#include "fleet/day_record.h"

namespace cms::fleet {

// Any thread. A line "SITE MILLISECONDS TOKEN" for each claim that was won; lines that cannot be
// read are left out.
class TokenLog {
 public:
  struct Since {
    std::int64_t from = 0;  // milliseconds since 1970
    ClaimToken token = 0;
  };

  explicit TokenLog(const std::string& folder);

  // From now on the site is recorded by this claim. Waits for nobody: what is new is in the file
  // once Save has been called, which News() asks for.
  void Note(std::uint32_t site, ClaimToken token);
  void Save();  // waits for the disk; one thread
  WakeUp& News() { return news_; }
  std::vector<Since> Of(std::uint32_t site) const;
  ClaimToken At(std::uint32_t site, std::int64_t time) const;  // 0: by none

 private:
  const std::string path_;
  mutable CMSCritical lock_;
  std::map<std::uint32_t, std::vector<Since>> sites_ CMS_GUARDED_BY(lock_);
  std::string unsaved_ CMS_GUARDED_BY(lock_);
  WakeUp news_;
};

}  // namespace cms::fleet
