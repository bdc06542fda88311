#include "cms/live/internal/moved_recordings.h"

#include <algorithm>

#include "cms/recording/database_reader.h"
#include "cms/recording/internal/database_maintenance.h"
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

std::wstring FolderOf(const std::wstring& path) {
  return std::wstring(SplitAtLastSeparator(path).folder);
}

std::wstring NameOf(const std::wstring& path) {
  return std::wstring(SplitAtLastSeparator(path).name);
}

bool IsThere(const std::wstring& path) {
  return CurrentFileIo().Exists(NativePath(path));
}

}  // namespace

void MovedRecordings::Add(const FinishedRecording& file) {
  {
    ScopeLock hold(lock_);
    held_.push_back(file);
  }
  SiteSupervisor::Moves().Add(this, TickMilliseconds());
}

std::uint64_t MovedRecordings::Turn(std::uint64_t now) {
  constexpr std::uint64_t kLookMs = 1'000;
  Look();
  ScopeLock hold(lock_);
  return held_.empty() && moving_.empty() ? SiteSupervisor::kNever : now + kLookMs;
}

void MovedRecordings::Look() {
  while (true) {
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
  while (!moving_.empty() && IsThere(moving_.front().to) && !IsThere(moving_.front().from) &&
         TakeOver(moving_.front())) {
    if (!listed_) {
      CRecFolderDBWriter().WriterRecFolderDB(kFolderList, target_.c_str());
      listed_ = true;
    }
    moving_.pop_front();
  }
}

// To the mover; false when the target is away.
bool MovedRecordings::Hand(const FinishedRecording& file) {
  const std::wstring folder = target_ + L"\\" + NameOf(FolderOf(file.drvPath));
  if (!IsThere(target_) ||
      (!IsThere(folder) && CurrentFileIo().MakeDirectory(NativePath(folder)) != 0)) {
    return false;
  }
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
  moving_.push_back({file.drvPath, to});
  return true;
}

// False when it has to be tried again.
bool MovedRecordings::TakeOver(const Move& move) const {
  const std::wstring folder = FolderOf(move.from);
  const auto list = ReadRecordList(folder);
  const std::string file = Utf8FromWide(move.from);
  const auto row = std::find_if(list.rows.begin(), list.rows.end(),
                                [&](const RecordRow& each) { return each.file == file; });
  if (row == list.rows.end()) {
    return list.state != DatabaseState::kUnreadable;
  }
  FX::FX_RecordDBListWriter writer;
  writer.SetDBListPath(FolderOf(move.to).c_str());
  writer.InitialRecordDBInfo(NameOf(move.to).c_str(), WideFromUtf8(row->address).c_str(),
                             WideFromUtf8(row->siteName).c_str(), row->port);
  writer.SetRecordTime(row->start);
  writer.SetRecordTime(row->end);
  if (!writer.WriteDBInfoIntoList()) {
    return false;
  }
  RemoveRecord(folder, NameOf(move.from));
  MakeFolderSpan(folder);
  return true;
}

void MovedRecordings::Stop() {
  SiteSupervisor::Moves().Remove(this);
  Look();
  mover_.StopMove();
  mover_.Supervision(kEndMs);
  mover_.LastMove();
  Look();
}

}  // namespace cms
