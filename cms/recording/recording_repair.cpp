#include "cms/recording/recording_repair.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "cms/recording/data_root.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/gap_log.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/internal/database_follower.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_maintenance.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/error_of.h"
#include "cms/recording/internal/event_mend.h"
#include "cms/recording/internal/file_move.h"
#include "cms/recording/internal/folder_mend.h"
#include "cms/recording/record_db_info.h"
#include "cms/recording/record_db_list_writer.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/log.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

// A recorder stores the record right after it closed the file.
constexpr std::int64_t kRecordDelayMilliseconds = 2000;

// Seconds since 1970-01-01 UTC.
struct Times {
  std::int64_t start = 0;
  std::int64_t end = 0;
};

// What a folder's record list says about its files, which a repair of thousands asks and extends.
class RecordedTimes {
 public:
  RecordedTimes(const std::wstring& folder, const std::string& dataRoot)
      : list_(RecordListPath(folder), RecordDatabaseLock(), dataRoot) {}

  // What came since the last time. False when the list cannot be read.
  bool Read() {
    return list_.Look([this] { times_.clear(); },
                      [this](const FX::FX_RecordDBInfo& record) {
                        std::string file;
                        record.GetFileName(file);
                        const std::wstring path = WideFromUtf8(file);
                        times_[std::wstring(SplitAtLastSeparator(path).name)].push_back(
                            {record.GetStartTime(), record.GetEndTime()});
                      }) != DatabaseState::kUnreadable;
  }

  // Of the records that name the file; empty when none does.
  const std::vector<Times>& Of(const std::wstring& name) const {
    const auto entry = times_.find(name);
    return entry != times_.end() ? entry->second : none_;
  }

  // From the earliest of its frames to the latest.
  bool Cover(const std::wstring& name, const DrvWalkReport& walk) const {
    const std::vector<Times>& times = Of(name);
    if (times.empty() || walk.lastSeconds == 0) {
      return !times.empty();
    }
    Times whole = times.front();
    for (const Times& each : times) {
      whole = {std::min(whole.start, each.start), std::max(whole.end, each.end)};
    }
    return whole.start <= walk.earliestSeconds && whole.end >= walk.latestSeconds;
  }

 private:
  DatabaseFollower<FX::FX_RecordDBInfo> list_;
  std::map<std::wstring, std::vector<Times>> times_;
  const std::vector<Times> none_{};
};

void LogRepaired(const RepairedRecording& result) {
  const std::string path = NativePath(result.path);
  switch (result.state) {
    case RepairState::kRepaired:
      Log(LogLevel::kWarning, "repair",
          path + ": repaired" +
              (result.cutBytes > 0 ? ", " + std::to_string(result.cutBytes) + " torn bytes cut"
                                   : "") +
              (result.indexRebuilt ? ", index made anew" : "") +
              (result.recordAdded ? ", record added" : ""));
      break;
    case RepairState::kRemoved:
      Log(LogLevel::kWarning, "repair", path + ": removed, it was empty");
      break;
    case RepairState::kFailed:
      Log(LogLevel::kError, "repair",
          path + ": cannot be repaired: " + std::generic_category().message(result.error));
      break;
    default:
      break;
  }
}

class Repair {
 public:
  Repair(const std::vector<std::wstring>& folders,
         const std::function<bool(const RepairedRecording&)>& visit, const RepairOptions& options)
      : io_(CurrentFileIo()),
        visit_(visit),
        dataRoot_(DataRootOr(options.dataRoot)),
        forgetMissing_(options.forgetMissing),
        events_(io_, dataRoot_) {
    for (const GapRow& gap : ReadGapLog(0, dataRoot_).rows) {  // of sites without a record yet
      RecordRow row;
      row.siteNumber = gap.siteNumber;
      row.siteName = gap.siteName;
      row.address = gap.address;
      row.port = gap.port;
      sites_.insert_or_assign(row.siteNumber, std::move(row));
    }
    for (const std::wstring& folder : folders) {
      for (RecordRow& row : ReadRecordList(folder, dataRoot_).rows) {
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
    std::int64_t modified = 0;  // before the repair: milliseconds since 1970-01-01 UTC
    DrvWalkReport walk;
  };

  void Mend(Recording& recording);
  bool IsHeld(Recording& recording);
  bool MendEnd(Recording& recording);
  bool RemoveEmpty(Recording& recording);
  bool MendIndex(Recording& recording);
  void MendRecord(Recording& recording);
  bool MendEvents(Recording& recording, const RecordRow& site);
  bool LookForMissing(const std::wstring& folder);
  void Count(const RepairedRecording& result);
  bool Fail(Recording& recording, int error);

  FileIo& io_;
  const std::function<bool(const RepairedRecording&)>& visit_;
  const std::string dataRoot_;
  const bool forgetMissing_;
  EventMend events_;
  std::vector<std::string> paths_;            // native, of the recordings of the folder in work
  std::optional<RecordedTimes> recorded_;     // likewise
  std::map<std::uint32_t, RecordRow> sites_;  // a record of each, for those that are missing
  RepairReport report_;
};

// A clock that was set back further than this begins another span: channels of one file may be a
// pre-alarm apart. So does a hole of a day.
constexpr std::int64_t kStepBack = 300;
constexpr std::int64_t kHole = 86'400;

// The spans of the video frames, or of `sound` without any, that no record covers: a recording that
// was continued has a record for each time that it was closed. Nothing when reading fails.
std::optional<std::vector<Times>> Uncovered(FileIo& io, const std::string& drv,
                                            const std::vector<Times>& recorded, bool sound) {
  const ScopedFile file(io, drv, kFileRead);
  if (!file) {
    return std::nullopt;
  }
  std::vector<Times> spans;
  DrvWalker walker(io, file.Handle());
  while (const auto frame = walker.Next()) {
    const std::int64_t seconds = frame->header.Seconds();
    const bool covered = std::any_of(recorded.begin(), recorded.end(), [&](const Times& times) {
      return seconds >= times.start && seconds <= times.end;
    });
    if (frame->header.IsAudio() != sound || covered) {
      continue;
    }
    if (spans.empty() || seconds < spans.back().end - kStepBack ||
        seconds > spans.back().end + kHole) {
      spans.push_back({seconds, seconds});
    }
    spans.back().start = std::min(spans.back().start, seconds);
    spans.back().end = std::max(spans.back().end, seconds);
  }
  errno = walker.Report().error;
  return errno == 0 ? std::optional(spans) : std::nullopt;
}

bool Repair::Fail(Recording& recording, int error) {
  recording.result.state = error == EWOULDBLOCK ? RepairState::kRecording : RepairState::kFailed;
  recording.result.error = error == EWOULDBLOCK ? 0 : ErrorOf(error);
  return false;
}

void Repair::Mend(Recording& recording) {
  if (PathInData(recording.result.path, dataRoot_) != recording.drv) {
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
  FileStatus status;
  if (!io_.Status(recording.drv, status)) {
    return Fail(recording, errno);
  }
  recording.modified = static_cast<std::int64_t>(status.modifiedNanoseconds / 1'000'000);
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
  const std::uint64_t size = before.walk.fileSize - recording.result.cutBytes;
  recording.result.strayBytes = before.walk.skippedBytes - recording.result.cutBytes;
  return size > 0 || RemoveEmpty(recording);
}

bool Repair::RemoveEmpty(Recording& recording) {
  if (!recorded_->Read()) {
    return Fail(recording, EIO);
  }
  if (!recorded_->Of(recording.name).empty()) {
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
  if (recording.walk.frames == 0) {
    return;
  }
  if (Utf16Length(RecordedPath(recording.result.path, dataRoot_)) > kLongestRecordedPath) {
    Fail(recording, ENAMETOOLONG);
    return;
  }
  if (recorded_->Cover(recording.name, recording.walk)) {
    return;
  }
  const std::int64_t wait = recording.modified + kRecordDelayMilliseconds - WallSeconds() * 1000;
  if (wait > 0) {
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::min(wait, kRecordDelayMilliseconds)));
  }
  if (!recorded_->Read()) {
    Fail(recording, EIO);
    return;
  }
  if (recorded_->Cover(recording.name, recording.walk)) {
    return;
  }
  const auto spans =
      Uncovered(io_, recording.drv, recorded_->Of(recording.name), recording.walk.lastSeconds == 0);
  if (!spans) {
    Fail(recording, errno);
    return;
  }
  const auto site = static_cast<std::uint32_t>(SiteNumberOf(recording.name).value_or(0));
  const auto known = sites_.find(site);
  RecordRow row = known != sites_.end() ? known->second : RecordRow();
  row.siteNumber = site;
  // First: once the record is there, nobody looks any more.
  if (!spans->empty() && !MendEvents(recording, row)) {
    Fail(recording, errno);
    return;
  }
  for (const Times& span : *spans) {
    FX::FX_RecordDBListWriter writer;
    writer.SetDataRoot(dataRoot_);
    writer.SetDBListPath(
        RecordedPath(LocatedInData(recording.folder, dataRoot_), dataRoot_).c_str());
    writer.InitialRecordDBInfo(recording.name.c_str(), WideFromUtf8(row.address).c_str(),
                               WideFromUtf8(row.siteName).c_str(), row.port);
    writer.SetRecordTime(span.start);
    writer.SetRecordTime(std::max(span.end, span.start + 1));  // a search looks for spans
    if (!writer.WriteDBInfoIntoList()) {
      Fail(recording, errno);
      return;
    }
    recording.result.recordAdded = true;
  }
}

// The site's earlier recordings of the folder tell where an event began.
bool Repair::MendEvents(Recording& recording, const RecordRow& site) {
  constexpr std::size_t kMostEarlier = 16;
  const std::string front = recording.drv.substr(0, recording.drv.rfind('_') + 1);
  auto at = std::upper_bound(paths_.begin(), paths_.end(), recording.drv);
  std::vector<std::string> indexes;
  while (indexes.size() < kMostEarlier && at != paths_.begin() && (--at)->starts_with(front)) {
    indexes.push_back(NativePath(IdxPathOf(SystemPath(*at))));
  }
  std::reverse(indexes.begin(), indexes.end());
  const unsigned before = events_.Added();
  const bool done = events_.Mend(indexes, site);
  recording.result.eventsAdded = events_.Added() - before;
  return done;
}

// False when it was stopped.
bool Repair::LookForMissing(const std::wstring& folder) {
  std::set<std::string> missing;
  for (const RecordRow& row : ReadRecordList(folder, dataRoot_).rows) {
    FileStatus status;
    const bool gone = !io_.Status(PathInData(WideFromUtf8(row.file), dataRoot_), status) &&
                      (errno == ENOENT || errno == ENOTDIR);
    if (gone && row.start != 0) {
      missing.insert(row.file);
    }
  }
  const auto isMissing = [&](std::wstring_view file) {
    return missing.contains(Utf8FromWide(file));
  };
  if (forgetMissing_ && !missing.empty() &&
      !RemoveRecords(LocatedInData(folder, dataRoot_), isMissing)) {
    report_.failedFolders.push_back(folder);
  }
  for (const std::string& file : missing) {
    RepairedRecording result;
    result.path = WideFromUtf8(file);
    result.state = RepairState::kMissing;
    ++report_.missing;
    if (!visit_(result)) {
      return false;
    }
  }
  return true;
}

void Repair::Count(const RepairedRecording& result) {
  LogRepaired(result);
  ++report_.files;
  report_.repaired += result.state == RepairState::kRepaired ? 1 : 0;
  report_.removed += result.state == RepairState::kRemoved ? 1 : 0;
  report_.recording += result.state == RepairState::kRecording ? 1 : 0;
  report_.failed += result.state == RepairState::kFailed ? 1 : 0;
  report_.recordsAdded += result.recordAdded ? 1 : 0;
  report_.eventsAdded += result.eventsAdded;
  report_.indexRebuilt += result.indexRebuilt ? 1 : 0;
}

// False when it was stopped.
bool Repair::Folder(const std::wstring& folder) {
  namespace fs = std::filesystem;
  paths_.clear();
  std::error_code error;
  for (fs::directory_iterator at(PathInData(folder, dataRoot_), error), end; !error && at != end;
       at.increment(error)) {
    std::error_code ignored;
    if (at->path().extension() == ".drv" && at->is_regular_file(ignored)) {
      paths_.push_back(at->path().string());
    } else if (at->path().string().ends_with(".idx.new") || IsMovingFile(at->path().string())) {
      RemoveLeftover(io_, at->path().string());
    }
  }
  recorded_.emplace(folder, dataRoot_);
  if (error || !recorded_->Read()) {
    report_.failedFolders.push_back(folder);
    return true;
  }
  std::sort(paths_.begin(), paths_.end());
  const auto before = ReadFolderSpan(folder, dataRoot_);
  bool added = false;
  for (const std::string& path : paths_) {
    Recording recording;
    recording.folder = folder;
    recording.name = WideFromUtf8(fs::path(path).filename().string());
    recording.drv = path;
    recording.result.path = folder + L"\\" + recording.name;
    recording.idx = PathInData(IdxPathOf(recording.result.path), dataRoot_);
    Mend(recording);
    Count(recording.result);
    added = added || recording.result.recordAdded;
    if (!visit_(recording.result)) {
      return false;
    }
  }
  if (!LookForMissing(folder)) {
    return false;
  }
  const FolderMend mend = MendFolderDatabases(LocatedInData(folder, dataRoot_));
  const auto after = ReadFolderSpan(folder, dataRoot_);
  const bool widened = added && after.rows != before.rows;
  report_.spansFixed += mend == FolderMend::kMended || widened ? 1 : 0;
  if (mend == FolderMend::kFailed) {
    report_.failedFolders.push_back(folder);
  }
  return true;
}

}  // namespace

RepairReport RepairRecordings(const std::vector<std::wstring>& folders,
                              const std::function<bool(const RepairedRecording&)>& visit,
                              const RepairOptions& options) {
  Repair repair(folders, visit, options);
  repair.Report().complete = std::all_of(folders.begin(), folders.end(),
                                         [&](const auto& folder) { return repair.Folder(folder); });
  return std::move(repair.Report());
}

}  // namespace cms
