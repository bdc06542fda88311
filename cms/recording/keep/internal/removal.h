// Removal, one run that removes recordings of an inventory.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "cms/recording/keep/internal/recording_inventory.h"
#include "cms/recording/keep/internal/site_times.h"
#include "cms/recording/keep/remove_recordings.h"
#include "cms/runtime/file_io.h"

namespace cms {

// The order, so that a kill at any moment leaves nothing half removed:
//
//  1. Of each recording, while its .drv file is locked, first the index, then the .drv file.
//  Between
//     the two a recording lacks its index, which a repair makes anew.
//  2. The events of the times that are gone.
//  3. The records whose file is gone, folder by folder. Until then they are the journal: whoever
//     finds one does steps 2 and 3 for it. A search passes over them. Where an event reaches
//     further than what went, and folders that were not looked into may show the rest of it, both
//     wait for a run that looks into all of them.
//  4. Spans, empty lists and folders, which follow from what is left.
//
// Files go before records also because a full disk has no room for a list to be rewritten.
class Removal {
 public:
  // `visit` as RemoveOptions has it.
  Removal(FileIo& io, const RecordingInventory& inventory, const SiteTimes& protectedTimes,
          bool dryRun, const std::function<bool(const RemovedRecording&)>& visit);

  // Step 1. `index`: of the inventory's recordings. True when it went, or would. One that stays is
  // asked once.
  bool Remove(std::size_t index, RemovalReason reason);
  bool IsStopped() const { return stopped_; }  // by `visit`
  bool IsGone(std::size_t index) const { return gone_[index]; }
  RemovalReport Finish();  // steps 2 to 4; once

 private:
  bool Stay(RemovedRecording recording, StayReason why, int error = 0);
  int RemoveFiles(const std::string& drv, std::int64_t modified) const;
  void EndRemoval();
  void Tell() const;
  struct Span {
    std::uint32_t site = 0;
    std::int64_t from = 0;
    std::int64_t to = 0;
  };

  bool DropEvents();
  void LeaveWaiting();
  bool DropRecords(std::size_t folder);
  void TidyFolder(const InventoryFolder& folder, bool empty);
  void Fail(const std::string& path, const std::string& what);

  FileIo& io_;
  const RecordingInventory& inventory_;
  const SiteTimes& protected_;
  const bool dryRun_;
  const std::function<bool(const RemovedRecording&)>& visit_;
  bool stopped_ = false;
  std::vector<bool> gone_;                         // of the inventory's recordings
  std::vector<bool> asked_;                        // "
  std::vector<std::map<std::string, Span>> lost_;  // of each folder: .drv files without a file
  SiteTimes lostTimes_;
  SiteTimes waitingTimes_;  // of events that something elsewhere may show
  RemovalReport report_;
};

}  // namespace cms
