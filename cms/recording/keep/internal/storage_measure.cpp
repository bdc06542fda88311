#include "cms/recording/keep/internal/storage_measure.h"

#include <algorithm>
#include <map>
#include <utility>

#include "cms/recording/keep/internal/local_day.h"
#include "cms/recording/keep/internal/write_rate.h"
#include "cms/runtime/clock.h"

namespace cms {
namespace {

constexpr double kForeseeableSeconds = 100 * 366 * 86'400.0;

struct SiteSum {
  explicit SiteSum(std::int64_t now) : rate(now) {}
  SiteUse use;
  WriteRate rate;
};

struct DiskSum {
  DiskSum(std::int64_t now, const std::string& folder) : rate(now) { use.folder = folder; }
  DiskUse use;
  WriteRate rate;
};

void AddDay(SiteUse& use, const LocalDay& day, std::uint64_t bytes) {
  if (use.days.empty() || use.days.back().day != day.text) {
    use.days.push_back({day.text, 0, 0});
  }
  ++use.days.back().files;
  use.days.back().bytes += bytes;
}

DiskUse Asked(FileIo& io, const DiskSum& sum, std::int64_t now) {
  DiskUse use = sum.use;
  FreeSpace space;
  if (io.Space(use.folder, space)) {
    use.total = space.total;
    use.free = space.freeToCaller;
  }
  use.bytesPerSecond = sum.rate.BytesPerSecond();
  const double seconds = static_cast<double>(use.free) / std::max(use.bytesPerSecond, 1e-9);
  if (use.total > 0 && seconds < kForeseeableSeconds) {
    use.fullAt = now + static_cast<std::int64_t>(seconds);
  }
  return use;
}

}  // namespace

StorageReport MeasureStorage(FileIo& io, const RecordingInventory& inventory,
                             const SiteTimes& protectedTimes,
                             const std::function<bool(std::size_t)>& leftOut) {
  StorageReport report;
  report.errors.reserve(inventory.Unreadable().size());
  for (const std::string& path : inventory.Unreadable()) {
    report.errors.push_back(path + ": cannot be read; what is in it does not count");
  }
  const std::int64_t now = WallSeconds();
  std::map<std::uint32_t, SiteSum> sites;
  std::vector<std::pair<std::uint64_t, DiskSum>> disks;  // by device
  const auto diskOf = [&](std::uint64_t device, const std::string& folder) -> DiskSum& {
    const auto found =
        std::ranges::find(disks, device, [](const auto& disk) { return disk.first; });
    return found != disks.end() ? found->second
                                : disks.emplace_back(device, DiskSum(now, folder)).second;
  };
  const std::string recordings = inventory.Root() + "/recordings";
  if (FileStatus status; io.Status(recordings, status)) {
    diskOf(status.device, recordings);
  }
  for (const InventoryFolder& folder : inventory.Folders()) {
    diskOf(folder.device, folder.path);
    report.lostRecords += folder.lost.size();
  }
  LocalDay day;  // recordings come in the order of their times
  for (std::size_t i = 0; i < inventory.Recordings().size(); ++i) {
    const StoredRecording& recording = inventory.Recordings()[i];
    if (leftOut(i)) {
      continue;
    }
    if (recording.start < day.begin || recording.start >= day.end) {
      day = LocalDayOf(recording.start);
    }
    SiteSum& site = sites.try_emplace(recording.site, now).first->second;
    const InventoryFolder& folder = inventory.Folders()[recording.folder];
    DiskSum& disk = diskOf(folder.device, folder.path);
    const bool isProtected = protectedTimes.Touches(recording.site, recording.start, recording.end);
    for (std::uint64_t* files : {&site.use.files, &disk.use.files, &report.files}) {
      ++*files;
    }
    for (std::uint64_t* bytes : {&site.use.bytes, &disk.use.bytes, &report.bytes}) {
      *bytes += recording.bytes;
    }
    for (std::uint64_t* bytes :
         {&site.use.protectedBytes, &disk.use.protectedBytes, &report.protectedBytes}) {
      *bytes += isProtected ? recording.bytes : 0;
    }
    AddDay(site.use, day, recording.bytes);
    site.rate.Add(recording);
    disk.rate.Add(recording);
    site.use.first = site.use.first == 0 ? recording.start : site.use.first;
    site.use.last = std::max(site.use.last, recording.end);
  }
  for (auto& [number, site] : sites) {
    site.use.site = number;
    site.use.bytesPerSecond = site.rate.BytesPerSecond();
    report.sites.push_back(std::move(site.use));
  }
  for (const auto& [device, disk] : disks) {
    report.disks.push_back(Asked(io, disk, now));
  }
  return report;
}

}  // namespace cms
