#include "fleet/held_recordings.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <set>
#include <utility>

#include "cms/recording/drv_format.h"
#include "cms/recording/recording_names.h"

namespace cms::fleet {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t kHour = 3'600'000;  // milliseconds
constexpr std::int64_t kHoursOfDay = 24;

// Clocks that are set back make times that go back: then a new span begins.
void AddTime(std::vector<HeldSpan>& spans, std::int64_t time) {
  if (spans.empty() || time < spans.back().from ||
      time > spans.back().to + HeldRecordings::kApart) {
    spans.push_back({time, time});
  }
  spans.back().to = std::max(spans.back().to, time);
}

}  // namespace

void HeldRecordings::Look() {
  std::set<std::string> there;
  for (std::size_t i = 0; i < folders_.size(); ++i) {
    LookAt(i, there);
  }
  const ScopeLock lock(lock_);
  std::erase_if(files_, [&](const auto& file) { return !there.contains(file.first); });
}

// The second folder's names begin with "disk2/", and so on: names on two disks may be the same.
void HeldRecordings::LookAt(std::size_t folder, std::set<std::string>& there) {
  const std::string& base = folders_[folder];
  const std::string head = folder == 0 ? "" : "disk" + std::to_string(folder + 1) + "/";
  std::error_code ignored;
  fs::recursive_directory_iterator entries(base + "/recordings",
                                           fs::directory_options::skip_permission_denied, ignored);
  for (; entries != fs::recursive_directory_iterator(); entries.increment(ignored)) {
    const fs::path& path = entries->path();
    const auto site = SiteNumberOf(path.filename().wstring());
    std::error_code unknown;
    const std::uint64_t size = path.extension() == ".idx" ? entries->file_size(unknown) : 0;
    if (!site || *site <= 0 || unknown || size < sizeof(DrvIdx)) {
      continue;
    }
    there.insert(path.string());
    Known known;
    {
      const ScopeLock lock(lock_);
      if (const auto found = files_.find(path.string()); found != files_.end()) {
        known = found->second;
      }
    }
    if (known.read > size) {
      known = {};
    }
    if (known.read + sizeof(DrvIdx) <= size) {
      known.file.name =
          head + fs::path(path).replace_extension(".drv").lexically_relative(base).string();
      known.file.site = static_cast<std::uint32_t>(*site);
      std::ifstream file(path, std::ios::binary);
      file.seekg(static_cast<std::streamoff>(known.read));
      DrvIdx record{};
      while (file.read(reinterpret_cast<char*>(&record), sizeof record)) {
        known.read += sizeof record;
        AddTime(known.file.spans, static_cast<std::int64_t>(record.milliseconds));
      }
      const ScopeLock lock(lock_);
      files_[path.string()] = std::move(known);
    }
  }
}

std::vector<HeldFile> HeldRecordings::Between(std::uint32_t site, std::int64_t from,
                                              std::int64_t to) const {
  const ScopeLock lock(lock_);
  std::vector<HeldFile> files;
  for (const auto& [path, known] : files_) {
    if (known.file.site == site &&
        std::any_of(known.file.spans.begin(), known.file.spans.end(),
                    [&](const HeldSpan& span) { return span.from <= to && span.to >= from; })) {
      files.push_back(known.file);
    }
  }
  return files;
}

std::map<std::int64_t, DayRecord> HeldRecordings::Days() const {
  const ScopeLock lock(lock_);
  std::map<std::int64_t, DayRecord> days;
  for (const auto& [path, known] : files_) {
    for (const HeldSpan& span : known.file.spans) {
      for (std::int64_t hour = span.from / kHour; hour <= span.to / kHour; ++hour) {
        days[hour / kHoursOfDay][known.file.site].hours |= 1u << hour % kHoursOfDay;
      }
    }
  }
  return days;
}

std::string HeldRecordings::PathOf(const std::string& name) const {
  const ScopeLock lock(lock_);
  const auto found = std::find_if(files_.begin(), files_.end(),
                                  [&](const auto& file) { return file.second.file.name == name; });
  return found == files_.end() ? "" : fs::path(found->first).replace_extension(".drv").string();
}

}  // namespace cms::fleet
