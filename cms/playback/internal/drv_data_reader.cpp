#include "cms/playback/internal/drv_data_reader.h"

#include <algorithm>
#include <filesystem>
#include <limits>
#include <system_error>

#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"

using cms::GopPlace;
using cms::PlaybackFrame;
using cms::PlaybackGop;

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
  std::stable_sort(good.begin(), good.end(),
                   [](const auto& a, const auto& b) { return a->StartTime() < b->StartTime(); });
  files_ = std::move(good);
  return !files_.empty();
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

bool CPlaybackDRVDataReader::Refresh() {
  const bool grown = Use(files_.size() - 1).Refresh();
  return (followNewFiles_ && AddNewFiles()) || grown;
}

bool CPlaybackDRVDataReader::AddNewFiles() {
  const std::filesystem::path last = cms::NativePath(files_.back()->Path());
  const auto site = cms::SiteNumberOf(last.filename().wstring());
  if (!site) {
    return false;
  }
  std::vector<std::wstring> names;
  std::error_code error;
  for (std::filesystem::directory_iterator it(last.parent_path(), error), end; !error && it != end;
       it.increment(error)) {
    const std::wstring name = it->path().filename().wstring();
    if (it->path().extension() == last.extension() && name > last.filename().wstring() &&
        cms::SiteNumberOf(name) == site) {
      names.push_back(name);
    }
  }
  std::sort(names.begin(), names.end());
  bool added = false;
  for (const std::wstring& name : names) {
    auto file = std::make_unique<FileReader>(
        io_, cms::SystemPath((last.parent_path() / name).string()), channel_);
    std::string why;
    if (file->Open(why) && file->StartTime() > files_.back()->StartTime()) {
      file->Rest();
      files_.push_back(std::move(file));
      added = true;
    }
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
