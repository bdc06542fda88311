// What lies on this recorder's disk, by the indexes beside its recordings, those that are being
// recorded included.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "fleet/day_record.h"

namespace cms::fleet {

struct HeldSpan {
  std::int64_t from = 0;  // milliseconds since 1970, both of frames
  std::int64_t to = 0;
};

struct HeldFile {
  std::string name;  // of the .drv file, below its folder of data
  std::uint32_t site = 0;
  std::vector<HeldSpan> spans;  // in order
};

// Any thread, one at a time reads. Remembers what it has read: of a file that grows, or did not
// change, only what is new is read.
class HeldRecordings {
 public:
  static constexpr std::int64_t kApart = 2'000;  // milliseconds between two spans

  // The folders of data, one for each disk; the first has the databases.
  explicit HeldRecordings(std::vector<std::string> folders) : folders_(std::move(folders)) {}

  void Look();
  std::vector<HeldFile> Between(std::uint32_t site, std::int64_t from, std::int64_t to) const;
  // By days, without tokens.
  std::map<std::int64_t, DayRecord> Days() const;
  // Of one of HeldFile's names; empty: there is no such recording.
  std::string PathOf(const std::string& name) const;

 private:
  struct Known {
    HeldFile file;
    std::uint64_t read = 0;  // bytes of the index
  };

  void LookAt(std::size_t folder, std::set<std::string>& there);

  const std::vector<std::string> folders_;
  mutable CMSCritical lock_;
  std::map<std::string, Known> files_ CMS_GUARDED_BY(lock_);  // by the indexes' paths
};

}  // namespace cms::fleet
