// Repair of recording folders that a crash, a power cut or a full disk left behind.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cms/runtime/api.h"

namespace cms {

enum class RepairState {
  kSound,
  kRepaired,
  kRemoved,    // it was empty, and no record names it: it is gone, with its index
  kRecording,  // somebody records into it, and it was left alone
  kFailed,     // `error` says why; what could not be repaired is as it was
  kMissing,    // it is gone, and a record names it; see RepairOptions::forgetMissing
};

// What became of one recording.
struct RepairedRecording {
  std::wstring path;  // of the .drv file, as the system writes paths
  RepairState state = RepairState::kSound;
  int error = 0;                 // errno
  std::uint64_t cutBytes = 0;    // of a torn frame at the end
  std::uint64_t strayBytes = 0;  // that belong to no frame; they stay
  bool indexRebuilt = false;
  std::uint64_t indexed = 0;    // frames that had no index record
  std::uint64_t unindexed = 0;  // index records that pointed at no frame
  bool recordAdded = false;     // to the folder's record list, one or more
  unsigned eventsAdded = 0;     // to the event list
};

struct RepairOptions {
  std::string dataRoot;  // empty: that of the process (cms/recording/data_root.h)
  // Takes the records out of the lists whose file is gone while its folder is there. Without it
  // they stay, for a file may come back.
  bool forgetMissing = false;
};

struct RepairReport {
  std::uint64_t files = 0;  // recordings looked at
  std::uint64_t repaired = 0;
  std::uint64_t removed = 0;
  std::uint64_t recording = 0;
  std::uint64_t failed = 0;
  std::uint64_t recordsAdded = 0;
  std::uint64_t eventsAdded = 0;
  std::uint64_t missing = 0;  // recordings that records name and that are gone
  std::uint64_t indexRebuilt = 0;
  std::uint64_t spansFixed = 0;
  std::vector<std::wstring> failedFolders;  // could not be read, or their databases not written
  bool complete = false;                    // `visit` did not stop it
};

// Repairs every recording of the folders (as the system writes paths, without a separator behind
// them; relative ones are in the data root, see cms/recording/data_root.h):
//
//  1. A torn frame at the end is cut off; an empty recording that no record names is removed, and
//  so
//     is what a move or a repair that was killed left half copied.
//  2. The index is made to fit, as ModifyDrvIdxFile does.
//  3. Frames that the folder's record list does not cover get a record, one for each span where a
//     clock was set back between them, with the address, the name and the port of the site's other
//     records in any of the folders. Events that ran when the process was killed, which the event
//     list does not have, get their rows before that.
//  4. A record list's torn tail is cut, and the folder's span made that of its records.
//
// Each step leaves what it finds sound as it is, byte for byte, so that a second repair changes
// nothing. Every file is replaced or cut in one step: a repair that is killed is simply repeated.
//
// Other processes may record into the folders. Their open files are left alone; for the record of
// one that they have just closed it waits up to two seconds. Records whose file is missing stay and
// are told, unless they are to be forgotten.
//
// `visit` is called for each recording once it is dealt with, and may return false to stop. Any
// thread; it waits for the disk.
CMS_API RepairReport RepairRecordings(const std::vector<std::wstring>& folders,
                                      const std::function<bool(const RepairedRecording&)>& visit,
                                      const RepairOptions& options = {});

}  // namespace cms
