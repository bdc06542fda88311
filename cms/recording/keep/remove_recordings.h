// Removes recordings with everything that belongs to them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

enum class RemovalReason {
  kAsked,      // it was named, or lies in what was
  kDays,       // it is older than its site's days
  kBytes,      // all recordings together have more bytes than they may
  kSiteBytes,  // its site has
  kFreeSpace,  // its disk has less free space than it shall have
};

enum class StayReason {
  kProtected,  // ProtectRecordings
  kRunning,    // it is being recorded, moved or repaired
  kFailed,     // `error` says why
};

// A recording that went, or would with `dryRun`.
struct RemovedRecording {
  std::string file;  // the .drv file, an absolute native path
  std::uint32_t site = 0;
  std::int64_t start = 0;  // seconds since 1970-01-01 UTC
  std::int64_t end = 0;
  std::uint64_t bytes = 0;  // of the recording and its index
  RemovalReason reason = RemovalReason::kAsked;
};

// One that was to go and stays.
struct StayingRecording {
  RemovedRecording recording;
  StayReason why = StayReason::kFailed;
  int error = 0;  // errno, with kFailed
};

struct RemovalReport {
  std::vector<std::string> errors;  // what was not done and why, with the path; empty: nothing
  std::vector<RemovedRecording> removed;
  std::vector<StayingRecording> staying;
  std::uint64_t removedBytes = 0;
  std::uint64_t lostRecords = 0;  // whose file was gone before; they are dropped
  std::uint64_t events = 0;       // records of the event list that went
  std::uint64_t folders = 0;      // that were empty then
};

struct RemoveOptions {
  std::string root = {};  // the data folder, an absolute native path
  // What is to go. Files alone, or the recordings of these sites, or those that ended before a
  // time, or, with both, those of these sites that ended before it. At least one is given.
  std::vector<std::string> files = {};    // absolute native paths of .drv files of the root
  std::vector<std::uint32_t> sites = {};  // numbers
  std::int64_t before = 0;                // seconds since 1970-01-01 UTC; 0: whenever they ended
  bool dryRun = false;                    // nothing is changed, the report tells what would be
  // Called for each recording that went, on the calling thread; false stops. May be empty.
  std::function<bool(const RemovedRecording&)> visit = {};
};

// Removes recordings of a data root and of the folders that its folder list leads to, the oldest
// first: the index and the .drv file, then the event records of their times that no other recording
// of the site shows, the records of the record list, the folder's span, and the folder when nothing
// is left in it. Protected recordings stay, and those that somebody holds: the running file, and
// one that is being moved or repaired. Who plays a recording plays it to its end.
//
// It may be killed at any moment. A recording of which only the .drv file is left is whole again
// after a repair; records whose file is gone tell the next call, of this function or of the others
// of this folder, what is left to be done.
//
// No lock of a database is held while files are removed, and each database is rewritten once. Any
// thread, for as many roots at once as there are; it waits for the disk.
CMS_API RemovalReport RemoveRecordings(const RemoveOptions& options);

// Ends what a killed removal left: RemoveRecordings of nothing. For who repairs a data root.
CMS_API RemovalReport EndRemovals(const std::string& root);

}  // namespace cms
