#include "tools/service/figure_events.h"

#include <utility>

#include "cms/runtime/log.h"

namespace tools {
namespace {

constexpr std::uint64_t kFullBytes = 32u << 20;  // with less no recording begins
constexpr std::uint64_t kLowPart = 20;           // of a disk that nobody frees

HookEvent EventOf(const SiteFigures& site, std::int64_t now) {
  HookEvent event;
  event.time = now;
  event.site = site.number;
  event.siteName = site.name;
  return event;
}

bool IsFull(const DiskFigures& disk) {
  return disk.totalBytes > 0 && disk.freeBytes < kFullBytes;
}

bool IsLow(const DiskFigures& disk, std::int64_t now) {
  const bool freed = disk.limitBytes > 0 || disk.keepFreeBytes > 0;
  return (disk.fullAt != 0 && disk.fullAt - now < FigureEvents::kLowSeconds) ||
         (!freed && disk.freeBytes < disk.totalBytes / kLowPart);
}

// Turns a span on or off; true when that is new. The event then has its cause and how long it was.
template <typename Span>
bool Follow(Span& span, bool on, HookEvent& event, HookEventKind begun, HookEventKind ended) {
  if (on == span.on) {
    return false;
  }
  span.on = on;
  event.kind = on ? begun : ended;
  if (on) {
    span.since = event.time;
    span.cause = event.cause;
  } else {
    event.seconds = event.time - span.since;
    event.cause = std::exchange(span.cause, {});
  }
  return true;
}

void LogDisk(const HookEvent& event) {
  const bool bad = event.kind == HookEventKind::kDiskFull ||
                   event.kind == HookEventKind::kDiskFailed ||
                   event.kind == HookEventKind::kRetentionBehind;
  const bool low = event.kind == HookEventKind::kDiskLow;
  cms::Log(bad   ? cms::LogLevel::kError
           : low ? cms::LogLevel::kWarning
                 : cms::LogLevel::kInfo,
           "disk",
           event.disk + ": " + HookEventName(event.kind) +
               (event.detail.empty() ? "" : ": " + event.detail));
}

}  // namespace

std::vector<HookEvent> FigureEvents::Look(const RecorderFigures& figures) {
  std::vector<HookEvent> events;
  const std::int64_t now = figures.now;
  std::map<unsigned, Site> sites;
  for (const SiteFigures& site : figures.sites) {
    Site& seen = sites[site.number] = std::move(sites_[site.number]);
    const bool plays = site.connection.state == cms::ConnectionState::kPlaying;
    if (plays || !site.enabled) {
      seen.notPlayingSince = 0;
    } else if (seen.notPlayingSince == 0) {
      seen.notPlayingSince = now;
    }
    const bool lost =
        seen.notPlayingSince != 0 && (seen.lost.on || now - seen.notPlayingSince >= kLostSeconds);
    HookEvent event = EventOf(site, now);
    if (lost) {
      event.cause = cms::ConnectionFaultName(site.connection.fault);
      event.detail = site.connection.detail;
    }
    if (Follow(seen.lost, lost, event, HookEventKind::kSiteLost, HookEventKind::kSiteBack)) {
      events.push_back(event);
    }
    event = EventOf(site, now);
    if (site.IsMissing()) {
      event.cause = cms::GapCauseName(site.gap->cause);
      event.detail = site.connection.detail;
    }
    if (Follow(seen.gap, site.IsMissing(), event, HookEventKind::kGapBegun,
               HookEventKind::kGapEnded)) {
      events.push_back(event);
    }
    event = EventOf(site, now);
    if (Follow(seen.event, site.event, event, HookEventKind::kEventBegun,
               HookEventKind::kEventEnded)) {
      events.push_back(event);
    }
  }
  sites_ = std::move(sites);

  for (const DiskFigures& disk : figures.disks) {
    Disk& seen = disks_[disk.path];
    const auto follow = [&](Span& span, bool on, HookEventKind begun, HookEventKind ended) {
      HookEvent event;
      event.time = now;
      event.disk = disk.path;
      event.detail = disk.problem;
      if (Follow(span, on, event, begun, ended)) {
        LogDisk(event);
        events.push_back(event);
      }
    };
    const bool full = IsFull(disk);
    follow(seen.trouble, full || !disk.usable,
           full ? HookEventKind::kDiskFull : HookEventKind::kDiskFailed, HookEventKind::kDiskBack);
    follow(seen.behind, !disk.keepsUp, HookEventKind::kRetentionBehind,
           HookEventKind::kRetentionKeepsUp);
    // That it is not low any more is nothing to be told of.
    if (const bool low = IsLow(disk, now); low != seen.low.on) {
      low ? follow(seen.low, true, HookEventKind::kDiskLow, HookEventKind::kDiskLow)
          : void(seen.low = {});
    }
  }
  return events;
}

}  // namespace tools
