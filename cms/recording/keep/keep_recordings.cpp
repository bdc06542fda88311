#include "cms/recording/keep/keep_recordings.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <optional>
#include <utility>

#include "cms/recording/keep/internal/local_day.h"
#include "cms/recording/keep/internal/protection_list.h"
#include "cms/recording/keep/internal/recording_inventory.h"
#include "cms/recording/keep/internal/removal.h"
#include "cms/recording/keep/internal/storage_measure.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/log.h"

namespace cms {
namespace {

constexpr double kDaySeconds = 86'400;

std::string Figure(double bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", bytes / 1e6);
  return text;
}

class Keeping {
 public:
  Keeping(FileIo& io, const KeepOptions& options, const RecordingInventory& inventory,
          const SiteTimes& protectedTimes)
      : io_(io),
        options_(options),
        inventory_(inventory),
        recordings_(inventory.Recordings()),
        protected_(protectedTimes),
        now_(WallSeconds()),
        removal_(io, inventory, protectedTimes, options.dryRun, options.visit) {
    for (const SiteLimits& limits : options.perSite) {
      sites_[limits.site] = limits;
    }
  }

  KeepReport Run() {
    ByDays();
    for (const SiteLimits& limits : options_.perSite) {
      if (limits.bytes > 0) {
        ByBytes(limits.bytes, {RemovalReason::kSiteBytes, limits.site, "", 0},
                [&](const StoredRecording& each) { return each.site == limits.site; });
      }
    }
    if (options_.bytes > 0) {
      ByBytes(options_.bytes, {RemovalReason::kBytes, 0, "", 0},
              [](const StoredRecording&) { return true; });
    }
    if (options_.freeBytes > 0) {
      ByFreeSpace();
    }
    report_.removal = removal_.Finish();
    report_.storage = MeasureStorage(io_, inventory_, protected_,
                                     [this](std::size_t i) { return removal_.IsGone(i); });
    report_.storage.lostRecords = 0;
    for (const DiskUse& disk : report_.storage.disks) {
      Warn(disk);
    }
    return std::move(report_);
  }

 private:
  // 0: however old.
  int DaysOf(std::uint32_t site) const {
    const auto own = sites_.find(site);
    return own != sites_.end() && own->second.days > 0 ? own->second.days : options_.days;
  }

  // What ends before it is too old at a moment.
  std::int64_t LimitOf(int days, std::int64_t at) {
    const auto [limit, added] = limits_.try_emplace({days, at}, 0);
    if (added) {
      limit->second = LocalDayOf(at, -days).begin;
    }
    return limit->second;
  }

  bool IsTooOld(const StoredRecording& recording, std::int64_t at) {
    const int days = DaysOf(recording.site);
    return days > 0 && recording.end < LimitOf(days, at);
  }

  void ByDays() {
    for (std::size_t i = 0; i < recordings_.size() && !removal_.IsStopped(); ++i) {
      if (IsTooOld(recordings_[i], options_.now > 0 ? options_.now : now_)) {
        removal_.Remove(i, RemovalReason::kDays);
      }
    }
  }

  // Removes the oldest of those that count until `over` bytes are gone.
  template <typename Counts>
  void RemoveOldest(LimitLeft limit, Counts counts) {
    for (std::size_t i = 0; i < recordings_.size() && limit.over > 0 && !removal_.IsStopped();
         ++i) {
      if (!removal_.IsGone(i) && counts(recordings_[i]) && removal_.Remove(i, limit.limit)) {
        limit.over -= std::min(limit.over, recordings_[i].bytes);
      }
    }
    if (limit.over > 0) {
      Log(LogLevel::kWarning, "retention",
          options_.root + ": " + Figure(static_cast<double>(limit.over)) +
              " over a limit cannot be removed: they are protected or in use");
      report_.left.push_back(std::move(limit));
    }
  }

  template <typename Counts>
  void ByBytes(std::uint64_t most, LimitLeft limit, Counts counts) {
    std::uint64_t bytes = 0;
    for (std::size_t i = 0; i < recordings_.size(); ++i) {
      bytes += !removal_.IsGone(i) && counts(recordings_[i]) ? recordings_[i].bytes : 0;
    }
    limit.over = bytes - std::min(bytes, most);
    RemoveOldest(std::move(limit), counts);
  }

  void ByFreeSpace() {
    std::map<std::uint64_t, std::string> disks;  // device -> a folder on it
    for (const InventoryFolder& folder : inventory_.Folders()) {
      disks.emplace(folder.device, folder.path);
    }
    for (const auto& [device, folder] : disks) {
      FreeSpace space;
      if (!io_.Space(folder, space)) {
        continue;
      }
      const auto isOnIt = [&, device = device](const StoredRecording& each) {
        return inventory_.Folders()[each.folder].device == device;
      };
      // Without removing anything the space of what would have gone is not free yet.
      std::uint64_t free = space.freeToCaller;
      for (std::size_t i = 0; options_.dryRun && i < recordings_.size(); ++i) {
        free += removal_.IsGone(i) && isOnIt(recordings_[i]) ? recordings_[i].bytes : 0;
      }
      const std::uint64_t over = options_.freeBytes - std::min(options_.freeBytes, free);
      RemoveOldest({RemovalReason::kFreeSpace, 0, folder, over}, isOnIt);
    }
  }

  // Whether the next day has room on the disk: what is free, and what the limits would free.
  void Warn(const DiskUse& disk) {
    if (disk.fullAt == 0 || removal_.IsStopped()) {
      return;
    }
    const auto free = static_cast<double>(disk.free);
    const double untilFull = free / disk.bytesPerSecond;
    const double untilNext = 2.0 * std::max(options_.everySeconds, 1);
    const std::uint64_t total = report_.storage.bytes;
    const bool byBytes =
        options_.bytes > 0 && options_.bytes - std::min(options_.bytes, total) <= disk.free;
    double room = free;
    for (std::size_t i = 0; i < recordings_.size(); ++i) {
      const StoredRecording& each = recordings_[i];
      const bool mayGo = !removal_.IsGone(i) &&
                         !protected_.Touches(each.site, each.start, each.end) &&
                         (byBytes || options_.freeBytes > 0 ||
                          IsTooOld(each, now_ + static_cast<std::int64_t>(kDaySeconds)));
      room += mayGo && IsOn(each, disk) ? static_cast<double>(each.bytes) : 0;
    }
    const double needed = disk.bytesPerSecond * kDaySeconds;
    std::string text;
    if (untilFull < untilNext) {
      text = disk.folder + ": " + Figure(free) + " are free and " + Figure(disk.bytesPerSecond) +
             " are recorded in a second: keep more space free";
    } else if (room < needed) {
      text = disk.folder + ": a day's recordings take " + Figure(needed) + ", and only " +
             Figure(room) +
             " are free or may be removed: protected recordings, other files or a limit that is "
             "too large take the rest";
    }
    if (!text.empty()) {
      const double full = untilFull < untilNext ? untilFull : room / disk.bytesPerSecond;
      Log(LogLevel::kWarning, "retention", text);
      report_.warnings.push_back(
          {disk.folder, now_ + static_cast<std::int64_t>(full), std::move(text)});
    }
  }

  bool IsOn(const StoredRecording& recording, const DiskUse& disk) {
    const std::uint64_t device = inventory_.Folders()[recording.folder].device;
    const auto [known, added] = devices_.try_emplace(disk.folder, 0);
    FileStatus status;
    if (added && io_.Status(disk.folder, status)) {
      known->second = status.device;
    }
    return known->second == device;
  }

  FileIo& io_;
  const KeepOptions& options_;
  const RecordingInventory& inventory_;
  const std::vector<StoredRecording>& recordings_;
  const SiteTimes& protected_;
  const std::int64_t now_;
  Removal removal_;
  std::map<std::uint32_t, SiteLimits> sites_;
  std::map<std::pair<int, std::int64_t>, std::int64_t> limits_;
  std::map<std::string, std::uint64_t> devices_;
  KeepReport report_;
};

}  // namespace

KeepReport KeepRecordings(const KeepOptions& options) {
  FileIo& io = CurrentFileIo();
  SiteTimes protectedTimes;
  std::string error = CheckDataRoot(io, options.root);
  error = error.empty() ? ReadProtection(options.root, protectedTimes) : error;
  if (!error.empty()) {
    KeepReport report;
    report.removal.errors.push_back(std::move(error));
    return report;
  }
  const RecordingInventory inventory(io, options.root, options.moved);
  return Keeping(io, options, inventory, protectedTimes).Run();
}

}  // namespace cms
