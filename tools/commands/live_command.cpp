// orvanta live: receives cameras, shows what arrives, and saves what they saw.
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/exports/net_exports.h"
#include "tools/commands/command.h"
#include "tools/support/fisheye_options.h"
#include "tools/support/live_site.h"
#include "tools/support/live_summary.h"
#include "tools/support/log_output.h"
#include "tools/support/status_lines.h"
#include "tools/support/stop_signal.h"
#include "tools/support/stream_options.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;

struct LiveArguments {
  StreamArguments streams;
  double seconds = 0;
  std::uint64_t frames = 0;
  std::string size;
  std::string snapshot;
  FisheyeArguments fisheye;
  bool noDecode = false;
  bool listen = false;
  std::string device;
  bool json = false;
  LogArguments log;
  bool quiet = false;
};

constexpr long kLargestSide = 16384;

void ReadPictureSize(const std::string& text, LiveOptions* options) {
  if (text.empty()) {
    return;
  }
  char rest = 0;
  if (std::sscanf(text.c_str(), "%5ldx%5ld%c", &options->width, &options->height, &rest) != 2 ||
      options->width <= 0 || options->height <= 0) {
    throw UsageError("--size", "\"" + text + "\" is not of the form 960x540");
  }
  if (options->width > kLargestSide || options->height > kLargestSide) {
    throw UsageError("--size", text + " is larger than " + std::to_string(kLargestSide) + "x" +
                                   std::to_string(kLargestSide));
  }
}

// "seen.png" of one camera; "seen-1.png", "seen-2.png" of several.
std::string SnapshotPath(const std::string& path, std::size_t number, std::size_t count) {
  if (count == 1) {
    return path;
  }
  const std::filesystem::path file(path);
  return (file.parent_path() /
          (file.stem().string() + "-" + std::to_string(number + 1) + file.extension().string()))
      .string();
}

// Empty unless frames of a codec that is decoded failed and none ever became a picture.
std::string WhyNoPicture(const LiveSite& site) {
  const auto told = site.Json();
  const bool failed = told.at("decode_errors") != 0 && told.at("decoded") == 0;
  return failed && told.at("codec") != "MP4V-ES"
             ? "none of " + told.at("frames").dump() + " frames became a picture"
             : "";
}

bool IsPngName(const std::string& path) {
  std::string extension = std::filesystem::path(path).extension().string();
  std::transform(extension.begin(), extension.end(), extension.begin(),
                 [](unsigned char c) { return std::tolower(c); });
  return extension == ".png";
}

class Live {
 public:
  explicit Live(const LiveArguments& arguments)
      : arguments_(arguments), lines_(arguments.json ? stderr : stdout) {
    for (std::size_t i = 0; i < arguments.streams.urls.size(); ++i) {
      LiveOptions options = OptionsOf(arguments.streams, i);
      options.decode = !arguments.noDecode;
      options.listen = arguments.listen;
      options.listenDevice = arguments.device;
      ReadPictureSize(arguments.size, &options);
      options.fisheye = FisheyeOf(arguments.fisheye);
      sites_.push_back(std::make_unique<LiveSite>(options));
    }
  }

  ~Live() {
    sites_.clear();
    StopEachClientNBManager();
  }

  int Run() {
    for (const auto& site : sites_) {
      site->Open();
    }
    const auto start = Clock::now();
    auto nextReport = start + std::chrono::seconds(1);
    while (!Finished(start) && !AllFailed()) {
      constexpr std::chrono::milliseconds kLook{50};
      if (WaitForStop(kLook)) {
        break;
      }
      if (Clock::now() >= nextReport) {
        nextReport += std::chrono::seconds(1);
        Report();
      }
    }
    return Finish();
  }

 private:
  bool Finished(Clock::time_point start) const {
    if (arguments_.seconds > 0 &&
        Clock::now() - start >= std::chrono::duration<double>(arguments_.seconds)) {
      return true;
    }
    return arguments_.frames > 0 && std::all_of(sites_.begin(), sites_.end(), [&](auto& site) {
             return site->Totals().videoFrames >= arguments_.frames;
           });
  }

  // No camera has ever delivered, and each has failed at least once: there is nothing to wait for.
  bool AllFailed() const {
    return std::all_of(sites_.begin(), sites_.end(), [](auto& site) {
      return site->Status().state == cms::ConnectionState::kWaiting &&
             site->Status().fault != cms::ConnectionFault::kNone && !site->EverDelivered();
    });
  }

  void Report() {
    if (arguments_.quiet || (arguments_.json && isatty(STDERR_FILENO) == 0)) {
      return;
    }
    std::vector<std::string> lines;
    for (const auto& site : sites_) {
      lines.push_back(site->StatusLine());
    }
    lines_.Show(lines);
  }

  int Finish() {
    int status = 0;
    std::vector<std::string> failures;
    for (std::size_t i = 0; i < sites_.size(); ++i) {
      LiveSite& site = *sites_[i];
      if (!site.EverDelivered()) {
        failures.push_back(site.Url() + ": " + WhyNothingArrived(site.Status()));
        continue;
      }
      if (const std::string reason = WhyNoPicture(site); !reason.empty()) {
        failures.push_back(site.Url() + ": " + reason);
      } else if (!arguments_.snapshot.empty()) {
        try {
          site.WriteSnapshot(SnapshotPath(arguments_.snapshot, i, sites_.size()));
        } catch (const std::runtime_error& error) {
          failures.push_back(site.Url() + ": " + error.what());
        }
      }
    }
    nlohmann::ordered_json streams = nlohmann::ordered_json::array();
    for (const auto& site : sites_) {
      streams.push_back(site->Json());
      site->Close();
    }
    if (!arguments_.json) {
      PrintSummary(streams);
      std::fflush(stdout);
    } else {
      std::printf("%s\n", nlohmann::ordered_json{{"streams", streams}}.dump(2).c_str());
    }
    for (const std::string& failure : failures) {
      std::fprintf(stderr, "orvanta live: %s\n", failure.c_str());
      status = 1;
    }
    return status;
  }

  const LiveArguments& arguments_;
  StatusLines lines_;
  std::vector<std::unique_ptr<LiveSite>> sites_;
};

}  // namespace

void AddLiveCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<LiveArguments>();
  const Command live = app.Add("live", "Receive and watch cameras");
  AddStreamOptions(live, arguments->streams);
  live.AddOption("--seconds", arguments->seconds, "end after so many seconds").Positive();
  live.AddOption("--frames", arguments->frames, "end when every camera sent so many frames");
  live.AddOption("--size", arguments->size, "size of the decoded pictures, such as 960x540")
      .TypeName("WxH");
  live.AddOption("--snapshot", arguments->snapshot,
                 "write the last picture; several cameras get FILE-1.png, FILE-2.png ...")
      .TypeName("FILE.png");
  AddFisheyeOptions(live, arguments->fisheye);
  live.AddFlag("--no-decode", arguments->noDecode, "receive and count only");
  const Option listen = live.AddFlag("--listen", arguments->listen, "play the sound");
  live.AddOption("--device", arguments->device, "sound device, see orvanta audio devices")
      .Needs(listen);
  live.AddFlag("--json", arguments->json, "print one JSON object at the end");
  AddLogOptions(live, arguments->log);
  live.AddFlag("--quiet", arguments->quiet, "show nothing before the end");
  live.Run([arguments, &result] {
    if (arguments->noDecode && !arguments->snapshot.empty()) {
      throw UsageError("--snapshot", "needs decoding: leave out --no-decode");
    }
    if (!arguments->snapshot.empty() && !IsPngName(arguments->snapshot)) {
      throw UsageError("--snapshot",
                       "writes PNG: \"" + arguments->snapshot + "\" does not end in .png");
    }
    const LogOutput log(LogLevelOf(arguments->log, "off"));
    result.status = Live(*arguments).Run();
  });
}

}  // namespace tools
