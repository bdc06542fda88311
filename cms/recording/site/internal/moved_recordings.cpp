#include "cms/recording/site/internal/moved_recordings.h"

#include <algorithm>
#include <chrono>
#include <set>
#include <thread>

#include "cms/recording/database_reader.h"
#include "cms/recording/internal/database_maintenance.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/record_db_list_writer.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr unsigned kFolderList = 0;
constexpr std::uint32_t kEndMs = 60'000;  // what a move across volumes may still take
constexpr std::size_t kDayLength = 8;

std::wstring FolderOf(const std::wstring& path) {
  return std::wstring(SplitAtLastSeparator(path).folder);
}

std::wstring NameOf(const std::wstring& path) {
  return std::wstring(SplitAtLastSeparator(path).name);
}

bool IsThere(const std::wstring& path) {
  return CurrentFileIo().Exists(NativePath(path));
}

bool IsDay(std::wstring_view name) {
  return name.size() == kDayLength && std::all_of(name.begin(), name.end(), [](wchar_t letter) {
           return letter >= L'0' && letter <= L'9';
         });
}

bool IsSameFolder(const std::wstring& a, const std::wstring& b) {
  FileStatus first;
  FileStatus second;
  FileIo& io = CurrentFileIo();
  return io.Status(NativePath(a), first) && io.Status(NativePath(b), second) &&
         first.device == second.device && first.inode == second.inode;
}

// There, and no recorder writes it.
bool IsFree(const std::wstring& path) {
  return static_cast<bool>(
      ScopedFile(CurrentFileIo(), NativePath(path), kFileReadWrite | kFileExclusive));
}

}  // namespace

bool MovedRecordings::Start() {
  mover_.PassGoneFiles();
  if (!mover_.StartMove()) {
    return false;
  }
  Turns::Moves().Add(this, TickMilliseconds());
  return true;
}

// What this run finished meanwhile is in both lists: Hand tells.
void MovedRecordings::PickUp() {
  const std::wstring own = FolderOf(front_);
  std::vector<std::wstring> folders;
  if (IsDay(NameOf(own))) {
    const std::wstring days = FolderOf(own);
    CurrentFileIo().List(NativePath(days), [&](std::string_view name, EntryKind) {
      if (const std::wstring day = WideFromUtf8(name); IsDay(day)) {
        folders.push_back(days + L"\\" + day);
      }
    });
    std::sort(folders.begin(), folders.end());
  } else if (!own.empty()) {
    folders.push_back(own);
  }
  std::vector<FinishedRecording> files;
  for (const std::wstring& folder : folders) {
    PickUpFrom(folder, files);
  }
  ScopeLock hold(lock_);
  held_.insert(held_.begin(), files.begin(), files.end());
}

void MovedRecordings::PickUpFrom(const std::wstring& folder,
                                 std::vector<FinishedRecording>& files) const {
  if (IsSameFolder(folder, target_ + L"\\" + NameOf(folder))) {
    return;
  }
  const std::wstring begin = NameOf(front_);
  std::set<std::wstring> paths;
  for (const RecordRow& row : ReadRecordList(folder).rows) {
    const std::wstring name = NameOf(WideFromUtf8(row.file));
    if (name.starts_with(begin)) {
      paths.insert(folder + L"\\" + name);
    }
  }
  for (const std::wstring& path : paths) {
    if (IsFree(path)) {
      files.push_back({path, IdxPathOf(path)});
    }
  }
}

void MovedRecordings::Add(const FinishedRecording& file) {
  {
    ScopeLock hold(lock_);
    held_.push_back(file);
  }
  Turns::Moves().Add(this, TickMilliseconds());
}

std::uint64_t MovedRecordings::Turn(std::uint64_t now) {
  constexpr std::uint64_t kLookMs = 1'000;
  if (!std::exchange(pickedUp_, true)) {
    PickUp();
  }
  Look();
  ScopeLock hold(lock_);
  return held_.empty() && moving_.empty() ? Turns::kNever : now + kLookMs;
}

// Removed by whoever keeps the disk free, and not the target taken away.
bool MovedRecordings::IsGone(const Move& move) const {
  return !IsThere(move.from) && !IsThere(move.to) && IsThere(FolderOf(move.to));
}

// An empty folder may have been removed since.
void MovedRecordings::KeepFolder(const Move& move) const {
  const std::wstring folder = FolderOf(move.to);
  if (IsThere(move.from) && IsThere(target_) && !IsThere(folder)) {
    CurrentFileIo().MakeDirectory(NativePath(folder));
  }
}

void MovedRecordings::Look() {
  while (!moving_.empty()) {
    Move& move = moving_.front();
    if (IsGone(move)) {
      moving_.pop_front();
      continue;
    }
    KeepFolder(move);
    if (!IsThere(move.to) || IsThere(move.from) || !TakeOver(move)) {
      break;
    }
    if (!listed_) {
      CRecFolderDBWriter().WriterRecFolderDB(
          kFolderList, NativePath(RecordedPath(target_, dataRoot_)), dataRoot_);
      listed_ = true;
    }
    moving_.pop_front();
  }
  while (moving_.size() < kMostMoving) {
    FinishedRecording file;
    {
      ScopeLock hold(lock_);
      if (held_.empty()) {
        break;
      }
      file = held_.front();
    }
    if (!Hand(file)) {
      break;
    }
    ScopeLock hold(lock_);
    held_.pop_front();
  }
}

// To the mover; false when the target is away.
bool MovedRecordings::Hand(const FinishedRecording& file) {
  const bool known = std::any_of(moving_.begin(), moving_.end(),
                                 [&](const Move& move) { return move.from == file.drvPath; });
  if (known || !IsThere(file.drvPath)) {
    return true;
  }
  const std::wstring folder = target_ + L"\\" + NameOf(FolderOf(file.drvPath));
  if (!IsThere(target_) ||
      (!IsThere(folder) && CurrentFileIo().MakeDirectory(NativePath(folder)) != 0)) {
    return false;
  }
  // Now, for a record whose file has gone may be dropped by others.
  auto list = ReadRecordList(FolderOf(file.drvPath));
  if (list.state == DatabaseState::kUnreadable) {
    return false;
  }
  std::vector<RecordRow> rows = std::move(list.rows);
  std::erase_if(rows, [name = Utf8FromWide(NameOf(file.drvPath))](const RecordRow& row) {
    return Utf8FromWide(NameOf(WideFromUtf8(row.file))) != name;
  });
  // A clock that was set back gives a name again, to another recording.
  std::wstring name = NameOf(file.drvPath);
  while (IsThere(folder + L"\\" + name)) {
    name = NextDrvFilename(name).value_or(L"_" + name);
  }
  const std::wstring to = folder + L"\\" + name;
  if (IsThere(file.idxPath)) {
    mover_.AddMove(file.idxPath, IdxPathOf(to));
  }
  mover_.AddMove(file.drvPath, to);
  moving_.push_back({file.drvPath, to, std::move(rows)});
  return true;
}

// A file that was continued has several records. False when it has to be tried again.
bool MovedRecordings::TakeOver(Move& move) const {
  const std::wstring folder = FolderOf(move.from);
  while (!move.rows.empty()) {
    const RecordRow& row = move.rows.front();
    FX::FX_RecordDBListWriter writer;
    writer.SetDataRoot(dataRoot_);
    writer.SetDBListPath(RecordedPath(FolderOf(move.to), dataRoot_).c_str());
    writer.InitialRecordDBInfo(NameOf(move.to).c_str(), WideFromUtf8(row.address).c_str(),
                               WideFromUtf8(row.siteName).c_str(), row.port);
    writer.SetRecordTime(row.start);
    writer.SetRecordTime(row.end);
    if (!writer.WriteDBInfoIntoList()) {
      return false;
    }
    if (RemoveRecord(folder, NameOf(move.from))) {
      MakeFolderSpan(folder);
    }
    move.rows.erase(move.rows.begin());
  }
  return true;
}

void MovedRecordings::Stop(int milliseconds) {
  using HostClock = std::chrono::steady_clock;
  constexpr std::chrono::milliseconds kLook{10};
  Turns::Moves().Remove(this);
  const auto end = HostClock::now() + std::chrono::milliseconds(milliseconds);
  Look();
  while (!moving_.empty() && mover_.LastError() == 0 && HostClock::now() < end) {
    std::this_thread::sleep_for(kLook);
    Look();
  }
  mover_.StopMove();
  if (mover_.Supervision(kEndMs) && HostClock::now() < end) {
    mover_.LastMove();
    Look();
  }
}

}  // namespace cms
