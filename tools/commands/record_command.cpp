// orvanta record: cameras into a folder of recordings.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "cms/exports/net_exports.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/runtime/log.h"
#include "cms/runtime/native_path.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/recording_folders.h"
#include "tools/service/config_check.h"
#include "tools/service/recorder_service.h"
#include "tools/support/log_output.h"
#include "tools/support/record_site.h"
#include "tools/support/status_lines.h"
#include "tools/support/stop_signal.h"
#include "tools/support/stream_options.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;

struct RecordArguments {
  StreamArguments streams;
  RecordOptions record;
  std::string data;
  std::string moveTo;
  double seconds = 0;
  std::string config;
  bool check = false;
  bool json = false;
  LogArguments log;
};

class Record {
 public:
  explicit Record(const RecordArguments& arguments) : arguments_(arguments) {
    if (arguments.record.preAlarm > 0 && arguments.record.eventEvery == 0 &&
        arguments.record.events.empty()) {
      throw UsageError("--pre-alarm", "is for --events and --event-every");
    }
    RecordOptions options = arguments.record;
    options.onvifEvents = &events_;
    options.moveTo = cms::SystemPath(AbsolutePath(arguments.moveTo));
    options.recordings = EnterDataFolder(arguments.data, DataFolderUse::kCreate).recordings;
    CRecFolderDBWriter().WriterRecFolderDB(0, kRecordings);  // where searches look
    for (std::size_t i = 0; i < arguments.streams.urls.size(); ++i) {
      LiveOptions live = OptionsOf(arguments.streams, i);
      live.decode = false;
      sites_.push_back(std::make_unique<RecordSite>(live, options));
    }
  }

  ~Record() {
    sites_.clear();
    StopEachClientNBManager();
  }

  int Run() {
    for (const auto& site : sites_) {
      site->Start();
    }
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration<double>(arguments_.seconds);
    auto nextReport = start + std::chrono::seconds(1);
    while (arguments_.seconds <= 0 || Clock::now() < end) {
      constexpr std::chrono::milliseconds kLook{100};
      if (WaitForStop(kLook)) {
        break;
      }
      for (const auto& site : sites_) {
        site->Look();
      }
      if (Clock::now() >= nextReport) {
        nextReport += std::chrono::seconds(1);
        Report();
      }
    }
    const bool ended = End();
    const int status = Finish();
    if (!ended) {
      std::_Exit(1);  // a thread that waits for the disk would hold up the end
    }
    return status;
  }

 private:
  // All sites are stopped before the first is waited for, and one time holds for all of them,
  // whatever the disk does. False when the sites are not free yet.
  bool End() {
    constexpr std::chrono::seconds kLongest{30};
    const auto end = Clock::now() + kLongest;
    for (const auto& site : sites_) {
      site->LookLast();
    }
    std::packaged_task<void()> task([this, end] {
      for (const auto& site : sites_) {
        site->Stop();
      }
      for (const auto& site : sites_) {
        site->WriteOut(end);
      }
      for (const auto& site : sites_) {
        site->Finish();
      }
    });
    std::future<void> ended = task.get_future();
    std::thread ending(std::move(task));
    if (ended.wait_until(end + std::chrono::seconds(2)) == std::future_status::ready) {
      ending.join();
      ended.get();
      return true;
    }
    ending.detach();
    return false;
  }

  void Report() {
    if (arguments_.json && isatty(STDERR_FILENO) == 0) {
      return;
    }
    std::vector<std::string> lines;
    for (const auto& site : sites_) {
      lines.push_back(site->StatusLine());
    }
    lines_.Show(lines);
  }

  static void Print(const nlohmann::ordered_json& site) {
    std::printf("site %u  %s: %llu frames (%llu key frames), %.1f MB, %llu dropped\n",
                site.at("site").get<unsigned>(), site.at("url").get<std::string>().c_str(),
                site.at("frames").get<unsigned long long>(),
                site.at("key_frames").get<unsigned long long>(),
                site.at("bytes").get<double>() / 1e6, site.at("dropped").get<unsigned long long>());
    if (const auto earlier = site.at("earlier_files").get<std::uint64_t>(); earlier > 0) {
      std::printf("  %llu files before these:\n", static_cast<unsigned long long>(earlier));
    }
    for (const auto& file : site.at("files")) {
      std::printf("  %s\n", file.get<std::string>().c_str());
    }
    for (const auto& gap : site.at("gaps")) {
      const auto to = gap.at("to").get<std::int64_t>();
      std::printf("  nothing recorded %s .. %s: %s\n",
                  LocalTime(gap.at("from").get<std::int64_t>()).c_str(),
                  to == 0 ? "now" : LocalTime(to).c_str(),
                  gap.at("cause").get<std::string>().c_str());
    }
  }

  int Finish() {
    nlohmann::ordered_json sites = nlohmann::ordered_json::array();
    int status = 0;
    for (const auto& site : sites_) {
      RecordSummary summary = site->Summary();
      sites.push_back(std::move(summary.json));
      if (!summary.notStored.empty()) {
        std::fprintf(stderr, "orvanta record: %s --data %s\n", summary.notStored.c_str(),
                     arguments_.data.c_str());
        status = 1;
      }
    }
    if (arguments_.json) {
      std::printf("%s\n", nlohmann::ordered_json{{"sites", sites}}.dump(2).c_str());
    } else {
      for (const auto& site : sites) {
        Print(site);
      }
    }
    std::fflush(stdout);
    for (const auto& site : sites_) {
      if (!site->Summary().delivered) {
        std::fprintf(stderr, "orvanta record: %s: %s\n", site->Url().c_str(),
                     WhyNothingArrived(site->Status()).c_str());
        status = 1;
      }
    }
    return status;
  }

  const RecordArguments& arguments_;
  StatusLines lines_{arguments_.json ? stderr : stdout};
  cms::OnvifEvents events_;  // outlives the sites
  std::vector<std::unique_ptr<RecordSite>> sites_;
};

// As a service. What is wrong with the file is told at once, all of it.
int RunConfigured(const RecordArguments& arguments) {
  if (arguments.check) {
    return CheckRecorderConfig(arguments.config, arguments.json);
  }
  const std::string path = AbsolutePath(arguments.config);
  ConfigProblems problems;
  RecorderConfig config = ReadRecorderConfig(path, &problems);
  TellProblems(path, problems);
  if (!problems.errors.empty()) {
    return kWrongFile;
  }
  return RecorderService(path, std::move(config)).Run(arguments.json);
}

}  // namespace

void AddRecordCommand(Command app, CommandResult& result) {
  constexpr int kLargestFileMiB = 4000;  // recordings end before 4 GiB
  constexpr unsigned kLongestPreAlarm = 255;
  auto arguments = std::make_shared<RecordArguments>();
  const Command record = app.Add("record", "Record cameras into a folder");
  const Option urls = AddStreamOptions(record, arguments->streams).Required(false);
  const Option data = AddDataOption(record, arguments->data).Required(false);
  const Option config =
      record
          .AddOption("--config", arguments->config,
                     "run as a service that records what this file says, instead of URLs; SIGHUP "
                     "has it read again (see docs/service.md)")
          .TypeName("FILE")
          .Excludes(urls)
          .Excludes(data);
  record
      .AddFlag("--check", arguments->check, "only say whether the file is right, and what it means")
      .Needs(config);
  record.AddOption("--seconds", arguments->seconds, "end after so many seconds").Positive();
  record
      .AddOption("--file-size", arguments->record.fileSizeMiB,
                 "begin a new file behind so many MiB (256)")
      .TypeName("MiB")
      .InRange(1, kLargestFileMiB);
  const Option schedule = record.AddFlag(
      "--schedule", arguments->record.schedule,
      "record as by a plan: begins by itself when the disk comes back, also at the start");
  const Option every = record
                           .AddOption("--event-every", arguments->record.eventEvery,
                                      "record only an event every so many seconds")
                           .TypeName("S")
                           .InRange(1u, 86'400u)
                           .Excludes(schedule);
  record.AddOption("--event-length", arguments->record.eventLength, "seconds of each event (5)")
      .TypeName("S")
      .InRange(1u, 86'400u)
      .Needs(every);
  std::string words;
  for (const std::string& word : CameraEventWords()) {
    words += (words.empty() ? "" : ", ") + word;
  }
  record
      .AddOption(
          "--events", arguments->record.events,
          "record only what the cameras tell by themselves, where the URL is onvif[s]://: " + words)
      .List()
      .OneOf(CameraEventWords())
      .Excludes(schedule)
      .Excludes(every);
  record
      .AddOption("--pre-alarm", arguments->record.preAlarm,
                 "seconds before each event that are recorded with it (0)")
      .TypeName("S")
      .InRange(0u, kLongestPreAlarm);
  record
      .AddOption("--move-to", arguments->moveTo,
                 "move finished files there; a folder that is away makes them wait")
      .TypeName("DIR");
  record.AddFlag("--json", arguments->json, "print one JSON object at the end");
  AddLogOptions(record, arguments->log);
  record.Run([arguments, &result] {
    if (!arguments->config.empty()) {
      result.status = RunConfigured(*arguments);
      return;
    }
    if (arguments->streams.urls.empty() || arguments->data.empty()) {
      throw UsageError("it takes URL... and --data DIR, or --config FILE");
    }
    const LogOutput log(LogLevelOf(arguments->log, "off"));
    result.status = Record(*arguments).Run();
  });
}

}  // namespace tools
