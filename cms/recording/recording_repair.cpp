#include "cms/recording/recording_repair.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <string_view>
#include <thread>
#include <utility>

#include "cms/recording/database_reader.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/internal/folder_mend.h"
#include "cms/recording/record_db_list_writer.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

// A recorder stores the record right after it closed the file.
constexpr std::int64_t kRecordDelayMilliseconds = 2000;

int ErrorOf(int error) {
  return error != 0 ? error : EIO;
}

// Seconds since 1970-01-01 UTC; the end is that of the last frame, as a recorder reports it.
struct Times {
  std::int64_t start = 0;
  std::int64_t end = 0;
};

class Repair {
 public:
  Repair(const std::vector<std::wstring>& folders,
         const std::function<bool(const RepairedRecording&)>& visit)
      : io_(CurrentFileIo()), visit_(visit) {
    for (const std::wstring& folder : folders) {
      for (RecordRow& row : ReadRecordList(folder).rows) {
        sites_.insert_or_assign(row.siteNumber, std::move(row));
      }
    }
  }

  bool Folder(const std::wstring& folder);
  RepairReport& Report() { return report_; }

 private:
  struct Recording {
    std::wstring folder;
    std::wstring name;
    std::string drv;  // native paths
    std::string idx;
    RepairedRecording result;
    DrvWalkReport walk;
  };

  void Mend(Recording& recording);
  bool IsHeld(Recording& recording);
  bool MendEnd(Recording& recording);
  bool RemoveEmpty(Recording& recording);
  bool MendIndex(Recording& recording);
  void MendRecord(Recording& recording);
  void Count(const RepairedRecording& result);
  bool Fail(Recording& recording, int error);

  FileIo& io_;
  const std::function<bool(const RepairedRecording&)>& visit_;
  std::map<std::uint32_t, RecordRow> sites_;  // a record of each, for those that are missing
  RepairReport report_;
};

std::wstring NameOf(const RecordRow& row) {
  const std::wstring path = WideFromUtf8(row.file);
  return std::wstring(SplitAtLastSeparator(path).name);
}

// From the earliest start to the latest end of the records that name the file; whether any does.
std::optional<Times> Recorded(const std::wstring& folder, const std::wstring& name) {
  std::optional<Times> times;
  for (const RecordRow& row : ReadRecordList(folder).rows) {
    if (NameOf(row) == name) {
      times = !times ? Times{row.start, row.end}
                     : Times{std::min(times->start, row.start), std::max(times->end, row.end)};
    }
  }
  return times;
}

bool Covers(const std::optional<Times>& recorded, const DrvWalkReport& walk) {
  return recorded && recorded->start <= walk.earliest_seconds && recorded->end >= walk.last_seconds;
}

// Of the video frames outside `recorded`: a recording that was continued has a record for each time
// that it was closed.
Times Uncovered(FileIo& io, const std::string& drv, const std::optional<Times>& recorded) {
  const ScopedFile file(io, drv, kFileRead);
  Times times;
  DrvWalker walker(io, file.Handle());
  while (const auto frame = walker.Next()) {
    const std::int64_t seconds = frame->header.Seconds();
    const bool covered = recorded && seconds >= recorded->start && seconds <= recorded->end;
    if (!frame->header.IsAudio() && !covered) {
      times.start = times.start == 0 ? seconds : std::min(times.start, seconds);
      times.end = seconds;
    }
  }
  return times;
}

bool Repair::Fail(Recording& recording, int error) {
  recording.result.state = error == EWOULDBLOCK ? RepairState::kRecording : RepairState::kFailed;
  recording.result.error = error == EWOULDBLOCK ? 0 : ErrorOf(error);
  return false;
}

void Repair::Mend(Recording& recording) {
  if (NativePath(recording.result.path) != recording.drv) {
    Fail(recording, EILSEQ);  // no path of the system's leads there
  } else if (!IsHeld(recording) && MendEnd(recording) && MendIndex(recording)) {
    MendRecord(recording);
  }
  RepairedRecording& result = recording.result;
  if (result.state == RepairState::kSound &&
      (result.cutBytes > 0 || result.indexRebuilt || result.recordAdded)) {
    result.state = RepairState::kRepaired;
  }
}

bool Repair::IsHeld(Recording& recording) {
  const ScopedFile file(io_, recording.drv, kFileRead | kFileExclusive);
  return !file && !Fail(recording, errno);
}

// False when nothing is left to be done for the recording.
bool Repair::MendEnd(Recording& recording) {
  const IdxRebuild before = CompareIdx(io_, recording.drv, recording.idx);
  recording.walk = before.walk;
  if (!before.done) {
    return Fail(recording, before.error);
  }
  if (before.walk.tail != DrvTail::kNone) {
    const TailCut cut = CutTornTail(io_, recording.drv);
    if (cut.error != 0) {
      return Fail(recording, cut.error);
    }
    recording.result.cutBytes = cut.bytes;
  }
  const std::uint64_t size = before.walk.file_size - recording.result.cutBytes;
  recording.result.strayBytes = before.walk.skipped_bytes - recording.result.cutBytes;
  return size > 0 || RemoveEmpty(recording);
}

bool Repair::RemoveEmpty(Recording& recording) {
  if (Recorded(recording.folder, recording.name)) {
    return true;
  }
  const ScopedFile file(io_, recording.drv, kFileReadWrite | kFileExclusive);
  if (!file) {
    return Fail(recording, errno);
  }
  if (io_.Size(file.Handle()) != 0) {  // somebody recorded into it since
    return Fail(recording, EWOULDBLOCK);
  }
  if ((io_.Remove(recording.idx) != 0 && errno != ENOENT) || io_.Remove(recording.drv) != 0) {
    return Fail(recording, errno);
  }
  recording.result.state = RepairState::kRemoved;
  return false;
}

bool Repair::MendIndex(Recording& recording) {
  const IdxRebuild rebuild = RebuildIdx(io_, recording.drv, recording.idx);
  if (!rebuild.done) {
    return Fail(recording, rebuild.error);
  }
  recording.walk = rebuild.walk;
  recording.result.indexRebuilt = rebuild.changed;
  recording.result.indexed = rebuild.added;
  recording.result.unindexed = rebuild.dropped;
  return true;
}

void Repair::MendRecord(Recording& recording) {
  if (recording.walk.last_seconds == 0) {
    return;  // no video in it
  }
  if (Utf16Length(recording.result.path) > kLongestRecordedPath) {
    Fail(recording, ENAMETOOLONG);
    return;
  }
  auto recorded = Recorded(recording.folder, recording.name);
  FileStatus status;
  if (!Covers(recorded, recording.walk) && io_.Status(recording.drv, status)) {
    const auto written = static_cast<std::int64_t>(status.modified_nanoseconds / 1'000'000);
    const std::int64_t wait =
        written + kRecordDelayMilliseconds - std::int64_t{WallSeconds()} * 1000;
    if (wait > 0) {
      std::this_thread::sleep_for(
          std::chrono::milliseconds(std::min(wait, kRecordDelayMilliseconds)));
      recorded = Recorded(recording.folder, recording.name);
    }
  }
  if (Covers(recorded, recording.walk)) {
    return;
  }
  const auto site = static_cast<std::uint32_t>(SiteNumberOf(recording.name).value_or(0));
  const auto known = sites_.find(site);
  const RecordRow row = known != sites_.end() ? known->second : RecordRow();
  const Times times = Uncovered(io_, recording.drv, recorded);
  FX::FX_RecordDBListWriter writer;
  writer.SetDBListPath(recording.folder.c_str());
  writer.InitialRecordDBInfo(recording.name.c_str(), WideFromUtf8(row.address).c_str(),
                             WideFromUtf8(row.siteName).c_str(), row.port);
  writer.SetRecordTime(times.start);
  writer.SetRecordTime(times.end);
  if (writer.WriteDBInfoIntoList()) {
    recording.result.recordAdded = true;
  } else {
    Fail(recording, errno);
  }
}

void Repair::Count(const RepairedRecording& result) {
  ++report_.files;
  report_.repaired += result.state == RepairState::kRepaired ? 1 : 0;
  report_.removed += result.state == RepairState::kRemoved ? 1 : 0;
  report_.recording += result.state == RepairState::kRecording ? 1 : 0;
  report_.failed += result.state == RepairState::kFailed ? 1 : 0;
  report_.recordsAdded += result.recordAdded ? 1 : 0;
  report_.indexRebuilt += result.indexRebuilt ? 1 : 0;
}

// False when it was stopped.
bool Repair::Folder(const std::wstring& folder) {
  namespace fs = std::filesystem;
  std::vector<std::string> paths;
  std::error_code error;
  for (fs::directory_iterator at(NativePath(folder), error), end; !error && at != end;
       at.increment(error)) {
    std::error_code ignored;
    if (at->path().extension() == ".drv" && at->is_regular_file(ignored)) {
      paths.push_back(at->path().string());
    } else if (at->path().string().ends_with(".idx.new")) {
      // What a killed repair left; one that runs holds it.
      if (const ScopedFile left(io_, at->path().string(), kFileReadWrite | kFileExclusive); left) {
        io_.Remove(at->path().string());
      }
    }
  }
  if (error) {
    report_.failedFolders.push_back(folder);
    return true;
  }
  std::sort(paths.begin(), paths.end());
  const auto before = ReadFolderSpan(folder);
  bool added = false;
  for (const std::string& path : paths) {
    Recording recording;
    recording.folder = folder;
    recording.name = WideFromUtf8(fs::path(path).filename().string());
    recording.drv = path;
    recording.result.path = folder + L"\\" + recording.name;
    recording.idx = NativePath(IdxPathOf(recording.result.path));
    Mend(recording);
    Count(recording.result);
    added = added || recording.result.recordAdded;
    if (!visit_(recording.result)) {
      return false;
    }
  }
  const FolderMend mend = MendFolderDatabases(folder);
  const auto after = ReadFolderSpan(folder);
  const bool widened = added && after.rows != before.rows;
  report_.spansFixed += mend == FolderMend::kMended || widened ? 1 : 0;
  if (mend == FolderMend::kFailed) {
    report_.failedFolders.push_back(folder);
  }
  return true;
}

}  // namespace

RepairReport RepairRecordings(const std::vector<std::wstring>& folders,
                              const std::function<bool(const RepairedRecording&)>& visit) {
  Repair repair(folders, visit);
  repair.Report().complete = std::all_of(folders.begin(), folders.end(),
                                         [&](const auto& folder) { return repair.Folder(folder); });
  return std::move(repair.Report());
}

}  // namespace cms
