#include "cms/playback/internal/drv_data_reader.h"

#include <algorithm>
#include <limits>
#include <tuple>
#include <utility>

#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

using cms::GopPlace;
using cms::PlaybackFrame;
using cms::PlaybackGop;

namespace {

// "folder/" and "name".
std::pair<std::string, std::string> Split(const std::string& path) {
  const std::size_t behind = path.rfind('/') + 1;
  return {path.substr(0, behind), path.substr(behind)};
}

std::optional<int> SiteOf(const std::string& name) {
  return cms::SiteNumberOf(cms::WideFromUtf8(name));
}

bool IsDay(std::string_view folder) {
  constexpr std::size_t kLength = 8;  // 20240229
  return folder.size() == kLength &&
         folder.find_first_not_of("0123456789") == std::string_view::npos;
}

}  // namespace

CPlaybackDRVDataReader::CPlaybackDRVDataReader(cms::FileIo& io,
                                               const std::vector<std::wstring>& paths,
                                               unsigned channel, bool followNewFiles)
    : io_(io), channel_(channel), followNewFiles_(followNewFiles) {
  for (const std::wstring& path : paths) {
    files_.push_back(std::make_unique<FileReader>(io, path, channel));
  }
}

bool CPlaybackDRVDataReader::Open(std::string& error) {
  error = files_.empty() ? "a site without files" : "";
  std::vector<std::unique_ptr<FileReader>> good;
  for (auto& file : files_) {
    std::string why;
    if (file->Open(why)) {
      file->Rest();
      good.push_back(std::move(file));
    } else if (error.empty()) {
      error = why;
    }
  }
  files_ = std::move(good);
  Sort();
  for (std::size_t next = 1; next < files_.size(); ++next) {
    Join(next);
    files_[next]->Rest();
  }
  return !files_.empty();
}

// Of those that begin within one second, recorders' names tell the order better than times.
void CPlaybackDRVDataReader::Sort() {
  using Order = std::tuple<std::int64_t, std::string, std::int64_t>;
  std::vector<std::pair<Order, std::unique_ptr<FileReader>>> order;
  const bool named = std::all_of(files_.begin(), files_.end(), [](const auto& file) {
    return SiteOf(Split(cms::NativePath(file->Path())).second).has_value();
  });
  for (auto& file : files_) {
    const std::int64_t time =
        named ? static_cast<std::int64_t>(file->FirstSecond()) : file->StartTime();
    std::string name = Split(cms::NativePath(file->Path())).second;
    order.emplace_back(Order{time, std::move(name), file->StartTime()}, std::move(file));
  }
  std::stable_sort(order.begin(), order.end(),
                   [](const auto& a, const auto& b) { return a.first < b.first; });
  files_.clear();
  for (auto& [key, file] : order) {
    files_.push_back(std::move(file));
  }
}

// Lets a file begin behind the one before it, if their seconds do not overlap.
void CPlaybackDRVDataReader::Join(std::size_t next) {
  FileReader& before = *files_[next - 1];
  FileReader& after = *files_[next];
  if (before.LastSecond() <= after.FirstSecond() &&
      before.EndTime() - after.StartTime() < cms::kPlaybackGap) {
    if (after.StartTime() <= before.EndTime()) {
      after.BeginAt(before.EndTime() + 1);
    }
    before.EndBefore(after.StartTime());
  } else if (after.StartTime() < before.StartTime()) {
    after.BeginAt(before.StartTime());
  }
}

CPlaybackDRVDataReader::FileReader& CPlaybackDRVDataReader::Use(std::size_t file) {
  if (file != used_) {
    for (std::size_t other : {used_ - 1, used_, used_ + 1}) {
      if (other < files_.size() && (other + 1 < file || other > file + 1)) {
        files_[other]->Rest();
      }
    }
    used_ = file;
  }
  return *files_[file];
}

std::int64_t CPlaybackDRVDataReader::Limit(std::size_t file) const {
  return file + 1 < files_.size() ? files_[file + 1]->StartTime()
                                  : std::numeric_limits<std::int64_t>::max();
}

std::optional<GopPlace> CPlaybackDRVDataReader::LastOf(std::size_t file) {
  for (;; --file) {
    const auto place = Use(file).At(Limit(file) - 1);
    if (place) {
      return GopPlace{file, place->key};
    }
    if (file == 0) {
      return std::nullopt;
    }
  }
}

std::optional<GopPlace> CPlaybackDRVDataReader::FirstFrom(std::size_t file) {
  for (; file < files_.size(); ++file) {
    // Another file may begin at the same time: then this one has no part of the timeline.
    if (files_[file]->StartTime() < Limit(file) && Use(file).First()) {
      return GopPlace{file, 0};
    }
  }
  return std::nullopt;
}

std::optional<GopPlace> CPlaybackDRVDataReader::At(std::int64_t time) {
  const auto later =
      std::upper_bound(files_.begin(), files_.end(), time,
                       [](std::int64_t t, const auto& file) { return t < file->StartTime(); });
  if (later == files_.begin()) {
    return std::nullopt;
  }
  const auto file = static_cast<std::size_t>(later - files_.begin()) - 1;
  const auto place = Use(file).At(time);
  if (place) {
    return GopPlace{file, place->key};
  }
  return file > 0 ? LastOf(file - 1) : std::nullopt;
}

std::optional<GopPlace> CPlaybackDRVDataReader::First() {
  return FirstFrom(0);
}

std::optional<GopPlace> CPlaybackDRVDataReader::After(const GopPlace& place) {
  FileReader& file = Use(place.file);
  const auto next = file.After({0, place.key});
  const auto within = next ? file.At(Limit(place.file) - 1) : std::nullopt;
  if (within && next->key <= within->key) {
    return GopPlace{place.file, next->key};
  }
  return FirstFrom(place.file + 1);
}

std::optional<GopPlace> CPlaybackDRVDataReader::Before(const GopPlace& place) {
  const auto previous = Use(place.file).Before({0, place.key});
  if (previous) {
    return GopPlace{place.file, previous->key};
  }
  return place.file > 0 ? LastOf(place.file - 1) : std::nullopt;
}

bool CPlaybackDRVDataReader::Load(const GopPlace& place, PlaybackGop& gop) {
  if (!Use(place.file).Load({0, place.key}, gop)) {
    return false;
  }
  gop.place = place;
  const std::int64_t limit = Limit(place.file);
  while (!gop.video.empty() && gop.video.back().time >= limit) {
    gop.video.pop_back();
  }
  while (!gop.audio.empty() && gop.audio.back().after >= gop.video.size()) {
    gop.audio.pop_back();
  }
  return !gop.video.empty();
}

std::size_t CPlaybackDRVDataReader::Read(const GopPlace& place, const PlaybackFrame& frame,
                                         std::span<std::uint8_t> out) {
  return Use(place.file).Read({0, place.key}, frame, out);
}

int CPlaybackDRVDataReader::LookAgainAfter() {
  constexpr int kNowAndThen = 2000;
  const int growing = files_.back()->LookAgainAfter();
  return growing == kNever && followNewFiles_ ? kNowAndThen : growing;
}

bool CPlaybackDRVDataReader::Refresh() {
  const bool grown = Use(files_.size() - 1).Refresh();
  return (followNewFiles_ && AddNewFiles()) || grown;
}

bool CPlaybackDRVDataReader::AddNewFiles() {
  const auto [folder, name] = Split(cms::NativePath(files_.back()->Path()));
  const auto site = SiteOf(name);
  if (!site) {
    return false;
  }
  bool added = AddNewFilesOf(folder, name, *site);
  const auto inside = Split(folder.substr(0, folder.empty() ? 0 : folder.size() - 1));
  const std::string& parent = inside.first;
  const std::string& day = inside.second;
  if (!IsDay(day)) {
    return added;
  }
  std::vector<std::string> days;
  io_.List(parent.empty() ? "." : parent, [&](std::string_view each, cms::EntryKind kind) {
    if (kind != cms::EntryKind::kFile && IsDay(each) && each > day) {
      days.emplace_back(each);
    }
  });
  std::sort(days.begin(), days.end());
  for (const std::string& each : days) {
    added = AddNewFilesOf(parent + each + "/", {}, *site) || added;
  }
  return added;
}

// Those of a folder whose names are later than one.
bool CPlaybackDRVDataReader::AddNewFilesOf(const std::string& folder, const std::string& behind,
                                           int site) {
  cms::FileStatus status;
  const bool present = io_.Status(folder.empty() ? "." : folder, status);
  const cms::FileStamp stamp(status);
  const auto looked = looked_.find(folder);
  if (!present || (looked != looked_.end() && looked->second == stamp)) {
    return false;
  }
  std::vector<std::string> names;
  const bool complete =
      io_.List(folder.empty() ? "." : folder, [&](std::string_view each, cms::EntryKind) {
        if (each.ends_with(".drv") && each > behind && SiteOf(std::string(each)) == site) {
          names.emplace_back(each);
        }
      });
  std::sort(names.begin(), names.end());
  bool added = false;
  bool pending = false;  // one that may have its first picture soon
  for (const std::string& name : names) {
    auto file = std::make_unique<FileReader>(io_, cms::SystemPath(folder + name), channel_);
    std::string why;
    if (!file->Open(why)) {
      pending = true;
    } else if (file->StartTime() > files_.back()->StartTime()) {
      files_.push_back(std::move(file));
      Join(files_.size() - 1);
      files_.back()->Rest();
      added = true;
    }
  }
  if (complete && !added && !pending && stamp.IsReliable()) {
    looked_[folder] = stamp;
  }
  return added;
}

cms::PlaybackReaderStatus CPlaybackDRVDataReader::Status() const {
  cms::PlaybackReaderStatus sum;
  for (const auto& file : files_) {
    const cms::PlaybackReaderStatus status = file->Status();
    sum.skippedBytes += status.skippedBytes;
    sum.rebuiltIndexes += status.rebuiltIndexes;
  }
  return sum;
}
