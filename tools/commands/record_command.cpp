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
#include "cms/runtime/native_path.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/recording_folders.h"
#include "tools/support/record_site.h"
#include "tools/support/status_lines.h"
#include "tools/support/stop_signal.h"
#include "tools/support/stream_options.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;

struct Arguments {
  StreamArguments streams;
  RecordOptions record;
  std::string data;
  std::string moveTo;
  double seconds = 0;
  bool json = false;
};

class Record {
 public:
  explicit Record(const Arguments& arguments) : arguments_(arguments) {
    RecordOptions options = arguments.record;
    options.moveTo = cms::SystemPath(AbsolutePath(arguments.moveTo));
    options.workingFolder = EnterDataFolder(arguments.data, DataFolderUse::kCreate).recordings;
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

  const Arguments& arguments_;
  StatusLines lines_{arguments_.json ? stderr : stdout};
  std::vector<std::unique_ptr<RecordSite>> sites_;
};

}  // namespace

void AddRecordCommand(Command app, CommandResult& result) {
  constexpr int kLargestFileMiB = 4000;  // recordings end before 4 GiB
  constexpr unsigned kLongestPreAlarm = 255;
  auto arguments = std::make_shared<Arguments>();
  const Command record = app.Add("record", "Record cameras into a folder");
  AddStreamOptions(record, arguments->streams);
  AddDataOption(record, arguments->data);
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
  record
      .AddOption("--pre-alarm", arguments->record.preAlarm,
                 "seconds before each event that are recorded with it (0)")
      .TypeName("S")
      .InRange(0u, kLongestPreAlarm)
      .Needs(every);
  record
      .AddOption("--move-to", arguments->moveTo,
                 "move finished files there; a folder that is away makes them wait")
      .TypeName("DIR");
  record.AddFlag("--json", arguments->json, "print one JSON object at the end");
  record.Run([arguments, &result] { result.status = Record(*arguments).Run(); });
}

}  // namespace tools
