#include "cms/recording/keep/internal/removal.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/recording/event_db_info.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_maintenance.h"
#include "cms/recording/internal/error_of.h"
#include "cms/recording/internal/file_locks.h"
#include "cms/recording/internal/file_move.h"
#include "cms/recording/internal/folder_mend.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr std::int64_t kStillSeconds = 60;  // where nothing can be locked: nobody writes any more

std::string IdxOf(const std::string& drv) {
  return NativePath(IdxPathOf(SystemPath(drv)));
}

}  // namespace

Removal::Removal(FileIo& io, const RecordingInventory& inventory, const SiteTimes& protectedTimes,
                 bool dryRun, const std::function<bool(const RemovedRecording&)>& visit)
    : io_(io),
      inventory_(inventory),
      protected_(protectedTimes),
      dryRun_(dryRun),
      visit_(visit),
      gone_(inventory.Recordings().size()),
      asked_(inventory.Recordings().size()),
      lost_(inventory.Folders().size()) {
  for (const std::string& path : inventory.Unreadable()) {
    Fail(path, "cannot be read; what is in it stays");
  }
}

void Removal::Fail(const std::string& path, const std::string& what) {
  report_.errors.push_back(path + ": " + what);
}

bool Removal::Stay(RemovedRecording recording, StayReason why, int error) {
  report_.staying.push_back({std::move(recording), why, error});
  return false;
}

bool Removal::Remove(std::size_t index, RemovalReason reason) {
  if (asked_[index]) {
    return false;
  }
  asked_[index] = true;
  const StoredRecording& stored = inventory_.Recordings()[index];
  RemovedRecording recording{
      inventory_.PathOf(stored), stored.site, stored.start, stored.end, stored.bytes, reason};
  if (protected_.Touches(stored.site, stored.start, stored.end)) {
    return Stay(std::move(recording), StayReason::kProtected);
  }
  const int error = RemoveFiles(recording.file, stored.modified);
  if (error == EWOULDBLOCK) {
    return Stay(std::move(recording), StayReason::kRunning);
  }
  if (error != 0 && error != ENOENT) {
    return Stay(std::move(recording), StayReason::kFailed, error);
  }
  gone_[index] = true;
  lost_[stored.folder][stored.name] = {stored.site, stored.start, stored.end};
  lostTimes_.Add(stored.site, stored.start, stored.end);
  if (error == 0) {  // else somebody else was faster
    stopped_ = visit_ && !visit_(recording);
    report_.removedBytes += recording.bytes;
    report_.removed.push_back(std::move(recording));
  }
  return true;
}

// 0, EWOULDBLOCK while somebody holds the recording, or the errno of what failed with both files
// there.
int Removal::RemoveFiles(const std::string& drv, std::int64_t modified) const {
  ScopedFile held(io_, drv, kFileRead | kFileExclusive);
  if (!held) {
    if (!CannotLock(errno)) {
      return ErrorOf(errno);
    }
    if (modified + kStillSeconds > WallSeconds()) {
      return EWOULDBLOCK;
    }
  }
  if (dryRun_) {
    return 0;
  }
  const std::string idx = IdxOf(drv);
  if (io_.Remove(idx) != 0 && errno != ENOENT) {
    return ErrorOf(errno);
  }
  if (io_.Remove(drv) != 0) {
    const int error = ErrorOf(errno);
    held.Close();
    RebuildIdx(io_, drv, idx);  // a repair does, where this cannot
    return error;
  }
  return 0;
}

RemovalReport Removal::Finish() {
  if (!dryRun_) {
    EndRemoval();
    Tell();
  }
  return std::move(report_);
}

void Removal::Tell() const {
  for (const std::string& error : report_.errors) {
    Log(LogLevel::kWarning, "retention", error);
  }
  if (!report_.removed.empty()) {
    const RemovedRecording& first = report_.removed.front();
    Log(LogLevel::kInfo, "retention",
        std::to_string(report_.removed.size()) + " recordings of " +
            std::to_string(report_.removedBytes) + " bytes removed, the oldest was " + first.file);
  }
}

void Removal::EndRemoval() {
  const auto& folders = inventory_.Folders();
  for (std::size_t i = 0; i < folders.size(); ++i) {
    for (const LostRecord& lost : folders[i].lost) {
      lost_[i].try_emplace(lost.name, Span{lost.site, lost.start, lost.end});
      if (lost.start > 0) {
        lostTimes_.Add(lost.site, lost.start, lost.end);
      }
      ++report_.lostRecords;
    }
  }
  if (!DropEvents()) {  // the records stay, so that the next run knows what to do
    return;
  }
  LeaveWaiting();
  std::vector<std::size_t> present(folders.size());
  for (std::size_t i = 0; i < gone_.size(); ++i) {
    present[inventory_.Recordings()[i].folder] += gone_[i] ? 0 : 1;
  }
  for (std::size_t i = 0; i < folders.size(); ++i) {
    for (const std::string& idx : folders[i].orphans) {
      RemoveLeftover(io_, idx);
    }
    for (const LostRecord& lost : folders[i].lost) {
      RemoveLeftover(io_, IdxOf(folders[i].path + "/" + lost.name));
    }
    const bool dropped = lost_[i].empty() || DropRecords(i);
    if (dropped && (!lost_[i].empty() || present[i] == 0)) {
      TidyFolder(folders[i], present[i] == 0);
    }
  }
}

bool Removal::DropEvents() {
  if (lostTimes_.IsEmpty()) {
    return true;
  }
  SiteTimes present;
  for (std::size_t i = 0; i < gone_.size(); ++i) {
    if (const StoredRecording& recording = inventory_.Recordings()[i]; !gone_[i]) {
      present.Add(recording.site, recording.start, recording.end);
    }
  }
  const auto stays = [&](std::span<const std::uint8_t> bytes) {
    const auto event = RecordFrom<FX::FX_EventDBInfo>(bytes);
    const Span its{event.GetSiteNumber(), event.GetStartTime(), event.GetEndTime()};
    if (!lostTimes_.Touches(its.site, its.from, its.to) ||
        present.Touches(its.site, its.from, its.to)) {
      return true;
    }
    const bool waits = !inventory_.IsWhole() && !lostTimes_.Covers(its.site, its.from, its.to);
    if (waits) {
      waitingTimes_.Add(its.site, its.from, its.to);
    }
    return waits;
  };
  const std::wstring path = RootDatabase(inventory_.Root(), "EventList0");
  ScopeLock databases(EventDatabaseLock());
  std::uint64_t dropped = 0;
  {
    DatabaseFile list(path, sizeof(FX::FX_EventDBInfo), DatabaseAccess::kRead);
    const bool read = list && list.ForEach([&](auto bytes) {
      dropped += stays(bytes) ? 0 : 1;
      return true;
    });
    if (!read && !list.Missing()) {
      Fail(NativePath(path), "cannot be read; its events stay");
      return false;
    }
  }
  if (dropped == 0) {
    return true;
  }
  DatabaseFile list(path, sizeof(FX::FX_EventDBInfo), DatabaseAccess::kChange);
  if (!list || !list.Filter(stays)) {
    Fail(NativePath(path), "cannot be written; its events stay until the next time");
    return false;
  }
  report_.events += dropped;
  return true;
}

// The records that tell a run that looks into all folders which times went.
void Removal::LeaveWaiting() {
  if (waitingTimes_.IsEmpty()) {
    return;
  }
  for (auto& folder : lost_) {
    std::erase_if(folder, [this](const auto& each) {
      const Span& its = each.second;
      return waitingTimes_.Touches(its.site, its.from, its.to);
    });
  }
}

bool Removal::DropRecords(std::size_t folder) {
  const auto& names = lost_[folder];
  const InventoryFolder& of = inventory_.Folders()[folder];
  const bool done = RemoveRecords(of.system, [&names](std::wstring_view file) {
    return names.contains(Utf8FromWide(SplitAtLastSeparator(file).name));
  });
  if (!done) {
    Fail(of.path,
         "its record list cannot be written; records whose file is gone stay until the "
         "next time");
  }
  return done;
}

// A recorder that begins a file here meanwhile makes the folder anew, or its file keeps it.
void Removal::TidyFolder(const InventoryFolder& folder, bool empty) {
  const bool ofToday =
      NativePath(SplitAtLastSeparator(folder.system).name) ==
      Utf8FromWide(RecordingStamp(WallSeconds()).substr(0, std::strlen("20261121")));
  if (empty && folder.removable && !ofToday && RemoveEmptyRecordList(folder.system)) {
    if (io_.RemoveDirectory(folder.path) == 0) {
      ++report_.folders;
    }
    return;
  }
  if (MendFolderDatabases(folder.system) == FolderMend::kFailed) {
    Fail(folder.path, "its span cannot be written");
  }
}

}  // namespace cms
