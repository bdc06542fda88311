// Keeps the recordings of a data root within limits.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cms/recording/keep/remove_recordings.h"
#include "cms/recording/keep/storage_use.h"
#include "cms/runtime/api.h"

namespace cms {

struct SiteLimits {
  std::uint32_t site = 0;
  int days = 0;             // in place of KeepOptions::days; 0: those
  std::uint64_t bytes = 0;  // of the site's recordings and indexes; 0: no limit of its own
};

struct KeepOptions {
  std::string root = {};  // the data folder, an absolute native path
  // Today and so many whole local days before it are kept: what ended before the first of them
  // goes. 0: however old.
  int days = 0;
  std::uint64_t bytes = 0;      // of all recordings and indexes; 0: no limit
  std::uint64_t freeBytes = 0;  // of each disk that recordings of the root lie on; 0: no limit
  std::vector<SiteLimits> perSite = {};
  // The time that days are counted back from, seconds since 1970-01-01 UTC; 0: this computer's
  // clock.
  std::int64_t now = 0;
  // Recordings that were moved elsewhere, too: the folders of the folder list. False for the root's
  // own alone: nothing waits for a disk that hangs elsewhere, and moved ones do not count.
  bool moved = true;
  int everySeconds = 60;  // when it will be called again: what fills a disk faster is told
  bool dryRun = false;
  std::function<bool(const RemovedRecording&)> visit = {};  // as in RemoveOptions
};

// A limit that could not be kept, since what is over it is protected, being recorded, or refused to
// go: KeepReport::removal.staying names the recordings.
struct LimitLeft {
  RemovalReason limit = RemovalReason::kBytes;  // kBytes, kSiteBytes or kFreeSpace
  std::uint32_t site = 0;                       // with kSiteBytes
  std::string disk;                             // with kFreeSpace: DiskUse::folder
  std::uint64_t over = 0;                       // bytes
};

// A disk that will be full although the limits are kept.
struct FullWarning {
  std::string disk;         // DiskUse::folder
  std::int64_t fullAt = 0;  // about, seconds since 1970-01-01 UTC
  std::string text;         // why, with figures and what to do
};

struct KeepReport {
  RemovalReport removal;
  StorageReport storage;  // what is there now
  std::vector<LimitLeft> left;
  std::vector<FullWarning> warnings;
};

// Removes, as RemoveRecordings does, what is older than its days, then for each limit that is
// exceeded the oldest recordings that count against it. Called again and again: a running recorder
// grows by what it wrote since. Days are those of the local time zone. Any thread; it waits for the
// disk.
CMS_API KeepReport KeepRecordings(const KeepOptions& options);

}  // namespace cms
