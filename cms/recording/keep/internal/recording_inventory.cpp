#include "cms/recording/keep/internal/recording_inventory.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <tuple>
#include <unordered_map>
#include <utility>

#include "cms/recording/drv_format.h"
#include "cms/recording/internal/database_content.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/record_db_info.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

namespace fs = std::filesystem;

constexpr std::string_view kRecordings = "/recordings";
constexpr std::string_view kDrv = ".drv";
constexpr std::string_view kIdx = ".idx";
constexpr std::int64_t kNanosecondsOfSecond = 1'000'000'000;
constexpr std::int64_t kOrphanSeconds = 86'400;  // a move brings the index long before a big file
constexpr std::size_t kStampLength = 14;

struct ListedFile {
  std::wstring path;  // as the record has it
  std::uint32_t site = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
};

ListedFile ListedFileOf(const FX::FX_RecordDBInfo& record) {
  return {record.GetFilenameW(), record.GetSiteNumber(), record.GetStartTime(),
          record.GetEndTime()};
}

std::wstring FolderOfEntry(const stRecFolderDB& entry) {
  return LoadUtf16(entry.folder);
}

bool IsMissingFile(int error) {
  return error == ENOENT || error == ENOTDIR;
}

std::int64_t SecondsOf(std::uint64_t nanoseconds) {
  return static_cast<std::int64_t>(nanoseconds) / kNanosecondsOfSecond;
}

// The local time in "Rec_Site1_20261121101500.drv".
std::optional<std::int64_t> TimeOfName(const std::string& name) {
  const std::size_t at = name.rfind('_') + 1;
  const std::string digits = name.substr(at, kStampLength);
  std::tm parts{};
  if (at == 0 || digits.size() != kStampLength ||
      digits.find_first_not_of("0123456789") != std::string::npos) {
    return std::nullopt;
  }
  const auto number = [&digits](std::size_t from, std::size_t count) {
    return std::stoi(digits.substr(from, count));
  };
  parts.tm_year = number(0, 4) - 1900;
  parts.tm_mon = number(4, 2) - 1;
  parts.tm_mday = number(6, 2);
  parts.tm_hour = number(8, 2);
  parts.tm_min = number(10, 2);
  parts.tm_sec = number(12, 2);
  parts.tm_isdst = -1;
  const std::int64_t time = std::mktime(&parts);
  return time > 0 ? std::optional(time) : std::nullopt;
}

// The earliest of the listed times that are set, and the latest.
void Widen(StoredRecording& recording, const ListedFile& listed) {
  if (listed.start > 0) {
    recording.start = recording.start > 0 ? std::min(recording.start, listed.start) : listed.start;
  }
  recording.end = std::max(recording.end, listed.end);
}

}  // namespace

std::string CheckDataRoot(FileIo& io, std::string_view root) {
  const std::string path(root);
  FileStatus status;
  if (!path.starts_with('/')) {
    return "\"" + path + "\" is no absolute path; name the data folder from the root on";
  }
  if (path.find('\\') != std::string::npos) {
    return path + ": records cannot keep a path with a \"\\\" in it";
  }
  const std::string recordings = path + std::string(kRecordings);
  if (!io.Status(recordings, status)) {
    return recordings + ": " + std::strerror(errno) + "; name a folder that was recorded into";
  }
  return status.isDirectory ? "" : recordings + " is not a folder";
}

std::wstring RootDatabase(const std::string& root, std::string_view name) {
  return SystemPath(root) + L"\\" + WideFromUtf8(name);
}

RecordingInventory::RecordingInventory(FileIo& io, std::string root, bool moved)
    : io_(io), root_(std::move(root)) {
  const std::string recordings = root_ + std::string(kRecordings);
  std::vector<std::string> parents = {recordings};
  const auto list = ReadDatabase<stRecFolderDB, std::wstring>(
      RootDatabase(root_, "RecFolderDB0"), FolderDatabaseLock(), FolderOfEntry, root_);
  if (list.state == DatabaseState::kUnreadable) {
    unreadable_.push_back(root_ + "/RecFolderDB0");
  }
  for (const std::wstring& entry : list.rows) {
    const auto folder = (fs::path(recordings) / NativePath(entry)).lexically_normal().string();
    if (folder != recordings) {
      parents.push_back(folder);
    }
  }
  if (!moved && parents.size() > 1) {
    parents.resize(1);
    isWhole_ = false;
  }
  for (const std::string& parent : parents) {
    ReadParent(parent);
  }
  std::ranges::sort(recordings_, [](const StoredRecording& a, const StoredRecording& b) {
    return std::tie(a.start, a.end, a.site, a.name) < std::tie(b.start, b.end, b.site, b.name);
  });
}

// An entry of the folder list is a folder of recording folders, or one itself.
void RecordingInventory::ReadParent(const std::string& path) {
  std::vector<std::string> names;
  const bool listed = io_.List(path, [&](std::string_view name, EntryKind kind) {
    if (kind != EntryKind::kFile) {
      names.emplace_back(name);
    }
  });
  if (!listed) {
    if (!IsMissingFile(errno)) {
      unreadable_.push_back(path);
    }
    isWhole_ = false;
    return;
  }
  std::ranges::sort(names);
  ReadFolder(path, false);
  for (const std::string& name : names) {
    ReadFolder(path + "/" + name, true);
  }
}

void RecordingInventory::ReadFolder(const std::string& path, bool removable) {
  FileStatus status;
  if (!io_.Status(path, status) || !status.isDirectory) {
    return;
  }
  const bool known = std::ranges::any_of(folders_, [&](const InventoryFolder& folder) {
    return folder.device == status.device && folder.inode == status.inode;
  });
  if (known) {
    return;
  }
  std::unordered_map<std::string, std::size_t> drvFiles;  // name -> place in `found`
  std::vector<StoredRecording> found;
  std::vector<std::string> idxFiles;
  bool hasList = false;
  const bool listed = io_.List(path, [&](std::string_view name, EntryKind kind) {
    if (kind == EntryKind::kFolder) {
      return;
    }
    hasList = hasList || name == "RecordDB";
    if (name.ends_with(kDrv)) {
      drvFiles.emplace(name, found.size());
      found.emplace_back().name = name;
    } else if (name.ends_with(kIdx)) {
      idxFiles.emplace_back(name);
    }
  });
  const std::wstring system = SystemPath(path);
  auto list = listed && hasList
                  ? ReadDatabase<FX::FX_RecordDBInfo, ListedFile>(
                        RecordListPath(system), RecordDatabaseLock(), ListedFileOf, root_)
                  : DatabaseContent<ListedFile>();
  if (!listed || list.state == DatabaseState::kUnreadable || NativePath(system) != path) {
    unreadable_.push_back(path);
    return;
  }
  if (found.empty() && idxFiles.empty() && !hasList) {
    return;
  }
  InventoryFolder folder{path, system, removable, status.device, status.inode, {}, {}};
  for (StoredRecording& recording : found) {
    FileStatus file;
    recording.site =
        static_cast<std::uint32_t>(SiteNumberOf(WideFromUtf8(recording.name)).value_or(0));
    if (io_.Status(path + "/" + recording.name, file) && file.isRegular) {
      recording.bytes = file.size;
      recording.modified = SecondsOf(file.modifiedNanoseconds);
      recording.folder = static_cast<std::uint32_t>(folders_.size());
    } else {
      recording.name.clear();  // it went meanwhile, or is no file
    }
  }
  for (const std::string& name : idxFiles) {
    const std::string idx = path + "/" + name;
    const auto drv = drvFiles.find(name.substr(0, name.size() - kIdx.size()) + std::string(kDrv));
    FileStatus file;
    if (!io_.Status(idx, file) || !file.isRegular) {
      continue;
    }
    if (drv != drvFiles.end()) {
      found[drv->second].bytes += file.size;
    } else if (SecondsOf(file.changedNanoseconds) + kOrphanSeconds < WallSeconds()) {
      folder.orphans.push_back(idx);
    }
  }
  for (const ListedFile& row : list.rows) {
    const std::string name = Utf8FromWide(SplitAtLastSeparator(row.path).name);
    if (const auto drv = drvFiles.find(name); drv != drvFiles.end()) {
      found[drv->second].listed = true;
      found[drv->second].site = row.site;
      Widen(found[drv->second], row);
    } else if (IsGone(row.path)) {
      folder.lost.push_back({row.site, name, row.start, row.end});
    }
  }
  folders_.push_back(std::move(folder));
  for (StoredRecording& recording : found) {
    const bool ours = recording.listed || recording.name.starts_with("Rec_Site");
    if (ours && !recording.name.empty()) {
      AddTimes(recording);
      recordings_.push_back(std::move(recording));
    }
  }
}

// A record may name another folder than the one that its list lies in.
bool RecordingInventory::IsGone(const std::wstring& recorded) const {
  const fs::path path = fs::path(root_ + std::string(kRecordings)) / NativePath(recorded);
  FileStatus status;
  return !io_.Status(path.lexically_normal().string(), status) && IsMissingFile(errno);
}

// Where no record tells: the index's first and last frame, or the name and the last write.
void RecordingInventory::AddTimes(StoredRecording& recording) const {
  if (recording.start > 0) {
    recording.end = std::max(recording.start, recording.end);
    return;
  }
  const std::string drv = PathOf(recording);
  const ScopedFile idx(io_, drv.substr(0, drv.size() - kDrv.size()) + std::string(kIdx), kFileRead);
  const std::int64_t size = idx ? io_.Size(idx.Handle()) : 0;
  const std::int64_t records = size / std::int64_t{sizeof(DrvIdx)};
  const auto secondsAt = [&](std::int64_t index) {
    DrvIdx record{};
    const auto at = static_cast<std::uint64_t>(index) * sizeof record;
    return records > 0 && io_.ReadAllAt(idx.Handle(), &record, sizeof record, at) == sizeof record
               ? static_cast<std::int64_t>(record.milliseconds / 1000)
               : 0;
  };
  recording.start = secondsAt(0);
  recording.end = secondsAt(records - 1);
  if (recording.start <= 0) {
    recording.start = TimeOfName(recording.name).value_or(recording.modified);
    recording.end = recording.modified;
  }
  recording.end = std::max(recording.start, recording.end);
}

}  // namespace cms
