#include "tools/service/metrics.h"

#include <array>
#include <charconv>
#include <functional>
#include <initializer_list>
#include <string_view>
#include <utility>

namespace tools {
namespace {

using Label = std::pair<std::string_view, std::string_view>;

class Exposition {
 public:
  // What follows is of this name, up to the next one.
  void Begin(std::string_view name, std::string_view type, std::string_view help) {
    name_ = name;
    text_.append("# HELP ").append(name).append(" ").append(help).append("\n# TYPE ");
    text_.append(name).append(" ").append(type).append("\n");
  }

  template <typename Number>
  void Add(std::initializer_list<Label> labels, Number value) {
    text_ += name_;
    char separator = '{';
    for (const auto& [name, content] : labels) {
      text_ += separator;
      text_.append(name).append("=\"");
      AddEscaped(content);
      text_ += '"';
      separator = ',';
    }
    text_ += separator == ',' ? "} " : " ";
    std::array<char, 64> digits{};
    const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
    text_.append(digits.data(), end);
    text_ += '\n';
  }

  std::string Take() { return std::move(text_); }

 private:
  void AddEscaped(std::string_view content) {
    for (const char c : content) {
      if (c == '\n') {
        text_ += "\\n";
      } else {
        text_ += c == '\\' || c == '"' ? "\\" : "";
        text_ += c;
      }
    }
  }

  std::string text_;
  std::string_view name_;
};

constexpr std::array kConnectionStates = {
    cms::ConnectionState::kClosed,  cms::ConnectionState::kOpening, cms::ConnectionState::kPlaying,
    cms::ConnectionState::kWaiting, cms::ConnectionState::kOpen,    cms::ConnectionState::kPaused,
};

struct SiteMetric {
  const char* name;
  const char* type;
  const char* help;
  double (*value)(const SiteFigures& site);
};

template <typename Number>
double Of(Number number) {
  return static_cast<double>(number);
}

double SinceVideo(const SiteFigures& site) {
  const std::uint32_t since = site.frames.sinceVideoMs;
  return since == cms::CMSFrameData::kNever ? -1.0 : since / 1000.0;
}

constexpr std::array kSiteMetrics = {
    SiteMetric{"orvanta_site_enabled", "gauge", "1: the configuration has the site on.",
               [](const SiteFigures& site) { return Of(site.enabled); }},
    SiteMetric{"orvanta_site_wanted", "gauge", "1: its plan wants it recorded now.",
               [](const SiteFigures& site) { return Of(site.enabled && site.wanted); }},
    SiteMetric{"orvanta_site_missing", "gauge", "1: it is wanted and not recorded.",
               [](const SiteFigures& site) { return Of(site.IsMissing()); }},
    SiteMetric{"orvanta_site_event", "gauge", "1: an event is being recorded.",
               [](const SiteFigures& site) { return Of(site.event); }},
    SiteMetric{"orvanta_site_playing", "gauge", "1: the camera's stream is delivered.",
               [](const SiteFigures& site) {
                 return Of(site.connection.state == cms::ConnectionState::kPlaying);
               }},
    SiteMetric{"orvanta_site_reconnects_total", "counter", "Times that the stream came back.",
               [](const SiteFigures& site) { return Of(site.connection.reconnects); }},
    SiteMetric{"orvanta_site_frames_total", "counter", "Video frames received.",
               [](const SiteFigures& site) { return Of(site.frames.videoFrames); }},
    SiteMetric{"orvanta_site_key_frames_total", "counter", "Key frames among them.",
               [](const SiteFigures& site) { return Of(site.frames.keyFrames); }},
    SiteMetric{"orvanta_site_audio_frames_total", "counter", "Blocks of sound received.",
               [](const SiteFigures& site) { return Of(site.frames.audioFrames); }},
    SiteMetric{"orvanta_site_received_bytes_total", "counter", "Bytes of frames received.",
               [](const SiteFigures& site) { return Of(site.frames.bytes); }},
    SiteMetric{"orvanta_site_lost_packets_total", "counter", "Packets that did not arrive.",
               [](const SiteFigures& site) { return Of(site.frames.lostPackets); }},
    SiteMetric{"orvanta_site_oversize_frames_total", "counter", "Frames too large to be received.",
               [](const SiteFigures& site) { return Of(site.frames.oversizeFrames); }},
    SiteMetric{"orvanta_site_frames_per_second", "gauge", "Video frames a second now.",
               [](const SiteFigures& site) { return site.frames.fps; }},
    SiteMetric{"orvanta_site_bits_per_second", "gauge", "Bits a second now.",
               [](const SiteFigures& site) { return site.frames.kbps * 1000; }},
    SiteMetric{"orvanta_site_since_frame_seconds", "gauge",
               "Seconds since the last video frame, -1: there has been none.", &SinceVideo},
    SiteMetric{"orvanta_site_recording", "gauge", "1: frames go into a file now.",
               [](const SiteFigures& site) {
                 return Of(site.recording.state == cms::RecordingState::kRecording);
               }},
    SiteMetric{"orvanta_site_recorded_frames_total", "counter", "Frames accepted for recording.",
               [](const SiteFigures& site) { return Of(site.recording.frames); }},
    SiteMetric{"orvanta_site_recorded_bytes_total", "counter", "Bytes accepted for recording.",
               [](const SiteFigures& site) { return Of(site.recording.bytes); }},
    SiteMetric{"orvanta_site_recorded_files_total", "counter", "Files begun.",
               [](const SiteFigures& site) { return Of(site.recording.files); }},
    SiteMetric{"orvanta_site_recording_failures_total", "counter",
               "Times that a file could not be opened or written.",
               [](const SiteFigures& site) { return Of(site.recording.failures); }},
    SiteMetric{"orvanta_site_late_records", "gauge", "Database records that wait to be stored.",
               [](const SiteFigures& site) {
                 return Of(site.recording.lateRecords + site.recording.lateEvents);
               }},
    SiteMetric{"orvanta_site_queue_jobs", "gauge", "Jobs that wait for the disk.",
               [](const SiteFigures& site) { return Of(site.recording.waitingJobs); }},
    SiteMetric{"orvanta_site_queue_oldest_seconds", "gauge",
               "For how long the oldest of them waits.",
               [](const SiteFigures& site) { return Of(site.recording.oldestWaitingMs) / 1000; }},
    SiteMetric{"orvanta_site_decoded_frames_total", "counter", "Frames decoded.",
               [](const SiteFigures& site) { return Of(site.decoder.decoded); }},
    SiteMetric{"orvanta_site_decode_errors_total", "counter", "Frames that could not be decoded.",
               [](const SiteFigures& site) { return Of(site.decoder.errors); }},
};

void AddSites(Exposition& text, const std::vector<SiteFigures>& sites) {
  std::vector<std::string> numbers;
  numbers.reserve(sites.size());
  for (const SiteFigures& site : sites) {
    numbers.push_back(std::to_string(site.number));
  }
  const auto each = [&](const std::function<void(const SiteFigures&, const std::string&)>& add) {
    for (std::size_t i = 0; i < sites.size(); ++i) {
      add(sites[i], numbers[i]);
    }
  };
  text.Begin("orvanta_site_info", "gauge", "1, with the name of the site.");
  each([&](const SiteFigures& site, const std::string& number) {
    text.Add({{"site", number}, {"name", site.name}}, 1);
  });
  for (const SiteMetric& metric : kSiteMetrics) {
    text.Begin(metric.name, metric.type, metric.help);
    each([&](const SiteFigures& site, const std::string& number) {
      text.Add({{"site", number}}, metric.value(site));
    });
  }
  text.Begin("orvanta_site_state", "gauge", "1: the connection is in that state.");
  each([&](const SiteFigures& site, const std::string& number) {
    for (const cms::ConnectionState state : kConnectionStates) {
      text.Add({{"site", number}, {"state", cms::ConnectionStateName(state)}},
               site.connection.state == state ? 1 : 0);
    }
  });
  text.Begin("orvanta_site_fault", "gauge", "1, with why the camera delivers nothing.");
  each([&](const SiteFigures& site, const std::string& number) {
    if (site.connection.fault != cms::ConnectionFault::kNone) {
      text.Add({{"site", number}, {"fault", cms::ConnectionFaultName(site.connection.fault)}}, 1);
    }
  });
  text.Begin("orvanta_site_dropped_frames_total", "counter",
             "Frames that are in no file, and why.");
  each([&](const SiteFigures& site, const std::string& number) {
    const cms::RecordingStatus& status = site.recording;
    for (const auto& [why, frames] : {std::pair("waiting for key frame", status.waitingFrames),
                                      std::pair("disk", status.failedFrames + status.lost.frames),
                                      std::pair("refused", status.refusedFrames)}) {
      text.Add({{"site", number}, {"why", why}}, frames);
    }
  });
  text.Begin("orvanta_site_gaps_total", "counter", "Gaps in the recording, by cause.");
  each([&](const SiteFigures& site, const std::string& number) {
    for (std::size_t i = 0; i < site.gaps.causes.size(); ++i) {
      text.Add({{"site", number}, {"cause", cms::GapCauseName(static_cast<cms::GapCause>(i))}},
               site.gaps.causes[i].begun);
    }
  });
  text.Begin("orvanta_site_gap_seconds_total", "counter", "Seconds of gaps that are over.");
  each([&](const SiteFigures& site, const std::string& number) {
    for (std::size_t i = 0; i < site.gaps.causes.size(); ++i) {
      text.Add({{"site", number}, {"cause", cms::GapCauseName(static_cast<cms::GapCause>(i))}},
               site.gaps.causes[i].seconds);
    }
  });
}

struct DiskMetric {
  const char* name;
  const char* type;
  const char* help;
  double (*value)(const DiskFigures& disk);
};

constexpr std::array kDiskMetrics = {
    DiskMetric{"orvanta_disk_bytes", "gauge", "Size of the disk.",
               [](const DiskFigures& disk) { return Of(disk.totalBytes); }},
    DiskMetric{"orvanta_disk_free_bytes", "gauge", "Free on it.",
               [](const DiskFigures& disk) { return Of(disk.freeBytes); }},
    DiskMetric{"orvanta_disk_recorded_bytes", "gauge", "Recordings on it.",
               [](const DiskFigures& disk) { return Of(disk.recordedBytes); }},
    DiskMetric{"orvanta_disk_protected_bytes", "gauge", "Of them those that are kept.",
               [](const DiskFigures& disk) { return Of(disk.protectedBytes); }},
    DiskMetric{"orvanta_disk_limit_bytes", "gauge", "What the recordings may take, 0: no limit.",
               [](const DiskFigures& disk) { return Of(disk.limitBytes); }},
    DiskMetric{"orvanta_disk_full_time_seconds", "gauge",
               "When it will be full, seconds since 1970, 0: it will not.",
               [](const DiskFigures& disk) { return Of(disk.fullAt); }},
    DiskMetric{"orvanta_disk_usable", "gauge", "0: recordings cannot be written to it.",
               [](const DiskFigures& disk) { return Of(disk.usable); }},
    DiskMetric{"orvanta_disk_retention_keeps_up", "gauge", "0: it fills faster than it is freed.",
               [](const DiskFigures& disk) { return Of(disk.keepsUp); }},
    DiskMetric{"orvanta_disk_removed_files_total", "counter", "Files that retention removed.",
               [](const DiskFigures& disk) { return Of(disk.removedFiles); }},
    DiskMetric{"orvanta_disk_removed_bytes_total", "counter", "Their bytes.",
               [](const DiskFigures& disk) { return Of(disk.removedBytes); }},
};

struct HookMetric {
  const char* name;
  const char* type;
  const char* help;
  std::uint64_t HookFigures::*value;
};

constexpr std::array kHookMetrics = {
    HookMetric{"orvanta_hook_told_total", "counter", "Events that were delivered.",
               &HookFigures::told},
    HookMetric{"orvanta_hook_failures_total", "counter", "Attempts that failed.",
               &HookFigures::failed},
    HookMetric{"orvanta_hook_dropped_total", "counter", "Events that nobody was told of.",
               &HookFigures::dropped},
    HookMetric{"orvanta_hook_waiting", "gauge", "Events that wait.", &HookFigures::waiting},
};

void AddProcess(Exposition& text, const RecorderFigures& figures) {
  text.Begin("orvanta_build_info", "gauge", "1, with the version.");
  text.Add({{"version", figures.version}}, 1);
  const auto add = [&](const char* name, const char* type, const char* help, double value) {
    text.Begin(name, type, help);
    text.Add({}, value);
  };
  add("process_start_time_seconds", "gauge", "When it started, seconds since 1970.",
      Of(figures.startedAt));
  add("process_cpu_seconds_total", "counter", "Processor time, user and system.",
      figures.process.cpuSeconds);
  add("process_resident_memory_bytes", "gauge", "Memory in use.",
      Of(figures.process.residentBytes));
  add("process_open_fds", "gauge", "Descriptors in use.", Of(figures.process.openDescriptors));
  add("process_max_fds", "gauge", "Descriptors that it may use.",
      Of(figures.process.mostDescriptors));
  add("orvanta_threads", "gauge", "Threads.", Of(figures.process.threads));
  add("orvanta_watchers", "gauge", "Viewers of the page.", figures.watchers);
  add("orvanta_config_reloads_total", "counter", "Times that the configuration was read again.",
      Of(figures.reloads));
  add("orvanta_config_ok", "gauge", "0: the last one was refused, the one before it goes on.",
      Of(figures.configProblem.empty()));
  add("orvanta_log_dropped_lines_total", "counter", "Lines of the log that were dropped.",
      Of(figures.droppedLogLines));
}

}  // namespace

std::string MetricsText(const RecorderFigures& figures) {
  Exposition text;
  AddProcess(text, figures);
  AddSites(text, figures.sites);
  for (const DiskMetric& metric : kDiskMetrics) {
    text.Begin(metric.name, metric.type, metric.help);
    for (const DiskFigures& disk : figures.disks) {
      text.Add({{"path", disk.path}}, metric.value(disk));
    }
  }
  for (const HookMetric& metric : kHookMetrics) {
    text.Begin(metric.name, metric.type, metric.help);
    for (const HookFigures& hook : figures.hooks) {
      text.Add({{"hook", hook.name}}, hook.*metric.value);
    }
  }
  return text.Take();
}

}  // namespace tools
