#include "tools/service/status_json.h"

#include <algorithm>
#include <cstdio>

#include "tools/support/time_text.h"

namespace tools {
namespace {

using nlohmann::ordered_json;

bool IsWell(const DiskFigures& disk) {
  return disk.usable && disk.keepsUp;
}

const char* RecordingStateName(cms::RecordingState state) {
  switch (state) {
    case cms::RecordingState::kIdle:
      return "idle";
    case cms::RecordingState::kWaitingForKeyFrame:
      return "waiting for key frame";
    case cms::RecordingState::kRecording:
      return "recording";
    case cms::RecordingState::kFailed:
      break;
  }
  return "failed";
}

ordered_json GapsJson(const cms::GapTotals& gaps) {
  ordered_json json = ordered_json::object();
  for (std::size_t i = 0; i < gaps.causes.size(); ++i) {
    if (gaps.causes[i].begun > 0) {
      json[cms::GapCauseName(static_cast<cms::GapCause>(i))] = {
          {"count", gaps.causes[i].begun}, {"seconds", gaps.causes[i].seconds}};
    }
  }
  return json;
}

ordered_json SiteJson(const SiteFigures& site) {
  ordered_json json = {
      {"site", site.number},
      {"name", site.name},
      {"url", site.url},
      {"ok", !site.IsMissing()},
      {"enabled", site.enabled},
      {"wanted", site.wanted},
      {"event", site.event},
      {"state", cms::ConnectionStateName(site.connection.state)},
      {"fault", cms::ConnectionFaultName(site.connection.fault)},
      {"detail", site.connection.detail},
      {"reconnects", site.connection.reconnects},
      {"fps", site.frames.fps},
      {"kbps", site.frames.kbps},
      {"frames", site.frames.videoFrames},
      {"lost_packets", site.frames.lostPackets},
      {"recording", RecordingStateName(site.recording.state)},
      {"recorded_frames", site.recording.frames},
      {"recorded_bytes", site.recording.bytes},
      {"files", site.recording.files},
      {"dropped", site.recording.waitingFrames + site.recording.failedFrames +
                      site.recording.refusedFrames + site.recording.lost.frames},
      {"oldest_waiting_ms", site.recording.oldestWaitingMs},
      {"gaps", GapsJson(site.gaps)},
  };
  if (site.gap) {
    json["gap"] = {{"cause", cms::GapCauseName(site.gap->cause)}, {"from", site.gap->from}};
  }
  return json;
}

ordered_json DiskJson(const DiskFigures& disk) {
  return {
      {"path", disk.path},
      {"ok", IsWell(disk)},
      {"total_bytes", disk.totalBytes},
      {"free_bytes", disk.freeBytes},
      {"recorded_bytes", disk.recordedBytes},
      {"protected_bytes", disk.protectedBytes},
      {"limit_bytes", disk.limitBytes},
      {"keep_free_bytes", disk.keepFreeBytes},
      {"full_at", disk.fullAt},
      {"keeps_up", disk.keepsUp},
      {"usable", disk.usable},
      {"problem", disk.problem},
      {"removed_files", disk.removedFiles},
      {"removed_bytes", disk.removedBytes},
  };
}

ordered_json HookFiguresJson(const HookFigures& hook) {
  return {{"name", hook.name},       {"told", hook.told},       {"failed", hook.failed},
          {"dropped", hook.dropped}, {"waiting", hook.waiting}, {"problem", hook.problem}};
}

template <typename Figures>
ordered_json ArrayOf(const std::vector<Figures>& all, ordered_json (*jsonOf)(const Figures&)) {
  ordered_json array = ordered_json::array();
  for (const Figures& each : all) {
    array.push_back(jsonOf(each));
  }
  return array;
}

std::string Gigabytes(double bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f GB", bytes / 1e9);
  return text;
}

std::string SiteLine(const ordered_json& site) {
  char rates[64];
  std::snprintf(rates, sizeof rates, "%5.1f fps %6.0f kbit/s", site.value("fps", 0.0),
                site.value("kbps", 0.0));
  std::string line = std::string(site.value("ok", false) ? "  " : "! ") + "site " +
                     std::to_string(site.value("site", 0u)) + " \"" + site.value("name", "") +
                     "\": ";
  if (!site.value("enabled", true)) {
    return line + "off";
  }
  line += site.value("state", "") + ", " + rates + ", " +
          (site.value("wanted", false) ? site.value("recording", "") : "not to be recorded now");
  if (const std::string detail = site.value("detail", ""); !detail.empty()) {
    line += "\n    " + detail;
  }
  if (site.contains("gap")) {
    line += "\n    nothing recorded since " +
            LocalTime(site["gap"].value("from", std::int64_t{0})) + ": " +
            site["gap"].value("cause", "");
  }
  return line;
}

std::string DiskLine(const ordered_json& disk) {
  std::string line = std::string(disk.value("ok", false) ? "  " : "! ") + "disk " +
                     disk.value("path", "") + ": " + Gigabytes(disk.value("recorded_bytes", 0.0)) +
                     " recorded, " + Gigabytes(disk.value("free_bytes", 0.0)) + " of " +
                     Gigabytes(disk.value("total_bytes", 0.0)) + " free";
  if (const auto full = disk.value("full_at", std::int64_t{0}); full != 0) {
    line += ", full at " + LocalTime(full);
  }
  if (const std::string problem = disk.value("problem", ""); !problem.empty()) {
    line += "\n    " + problem;
  }
  return line;
}

}  // namespace

bool IsAllWell(const RecorderFigures& figures) {
  return std::none_of(figures.sites.begin(), figures.sites.end(),
                      [](const SiteFigures& site) { return site.IsMissing(); }) &&
         std::all_of(figures.disks.begin(), figures.disks.end(),
                     [](const DiskFigures& disk) { return IsWell(disk); });
}

ordered_json StatusJson(const RecorderFigures& figures) {
  return {
      {"ok", IsAllWell(figures)},
      {"version", figures.version},
      {"time", figures.now},
      {"started", figures.startedAt},
      {"reloads", figures.reloads},
      {"config_problem", figures.configProblem},
      {"watchers", figures.watchers},
      {"processor_seconds", figures.process.cpuSeconds},
      {"memory_bytes", figures.process.residentBytes},
      {"descriptors", figures.process.openDescriptors},
      {"threads", figures.process.threads},
      {"sites", ArrayOf(figures.sites, &SiteJson)},
      {"disks", ArrayOf(figures.disks, &DiskJson)},
      {"hooks", ArrayOf(figures.hooks, &HookFiguresJson)},
  };
}

std::string StatusText(const ordered_json& status) {
  std::string text = std::string("recorder ") + status.value("version", "") + ", running since " +
                     LocalTime(status.value("started", std::int64_t{0})) + ": " +
                     (status.value("ok", false) ? "all well" : "something is wrong") + "\n";
  if (const std::string problem = status.value("config_problem", ""); !problem.empty()) {
    text += "! the configuration was not read again: " + problem + "\n";
  }
  for (const auto& site : status.value("sites", ordered_json::array())) {
    text += SiteLine(site) + "\n";
  }
  for (const auto& disk : status.value("disks", ordered_json::array())) {
    text += DiskLine(disk) + "\n";
  }
  for (const auto& hook : status.value("hooks", ordered_json::array())) {
    if (const std::string problem = hook.value("problem", ""); !problem.empty()) {
      text += "! hook " + hook.value("name", "") + ": " + problem + "\n";
    }
  }
  return text;
}

}  // namespace tools
