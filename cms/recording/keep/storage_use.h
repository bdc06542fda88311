// What the recordings of a data root take, and when their disks will be full.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

struct DayUse {
  std::string day;  // "2026-11-21", local; of the recordings that began on it
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;  // of recordings and indexes
};

struct SiteUse {
  std::uint32_t site = 0;
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t protectedBytes = 0;
  std::int64_t first = 0;     // the earliest start, seconds since 1970-01-01 UTC
  std::int64_t last = 0;      // the latest end
  double bytesPerSecond = 0;  // of the last 24 hours
  std::vector<DayUse> days;   // in their order
};

// A file system that recordings of the root lie on.
struct DiskUse {
  std::string folder;       // the first of the root's folders on it, an absolute native path
  std::uint64_t total = 0;  // bytes of the disk; 0 when it cannot be asked
  std::uint64_t free = 0;   // for this process
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;  // of recordings
  std::uint64_t protectedBytes = 0;
  double bytesPerSecond = 0;  // of the last 24 hours
  // When it is full if it goes on so and nothing is removed, seconds since 1970-01-01 UTC; 0 when
  // that is not within a hundred years.
  std::int64_t fullAt = 0;
};

struct StorageReport {
  std::vector<std::string> errors;  // what could not be read, with the path; empty: nothing
  std::vector<SiteUse> sites;       // by their numbers
  std::vector<DiskUse> disks;       // the one of the root's recordings first
  std::uint64_t files = 0;
  std::uint64_t bytes = 0;
  std::uint64_t protectedBytes = 0;
  std::uint64_t lostRecords = 0;  // whose file is gone; the next removal or repair drops them
};

// Of a data root, an absolute native path, and of the folders that its folder list leads to. No
// recording is opened. Any thread; it waits for the disk.
CMS_API StorageReport StorageUse(const std::string& root);

}  // namespace cms
