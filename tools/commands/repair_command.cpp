// orvanta repair: makes recordings, indexes and databases fit each other after a crash.
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cms/recording/data_root.h"
#include "cms/recording/keep/remove_recordings.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/recording_repair.h"
#include "cms/runtime/wide_text.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/recording_folders.h"
#include "tools/support/progress.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct RepairArguments {
  std::string data;
  bool json = false;
  bool forgetMissing = false;
};

std::string Count(std::uint64_t count, const char* what) {
  return std::to_string(count) + " " + what + (count == 1 ? "" : "s");
}

// What was done to a recording, in words; empty when nothing was.
std::string RepairedText(const cms::RepairedRecording& recording, bool forgetMissing) {
  std::string text;
  const auto add = [&text](const std::string& part) { text += (text.empty() ? "" : ", ") + part; };
  if (recording.cutBytes > 0) {
    add("cut a torn frame of " + Count(recording.cutBytes, "byte"));
  }
  if (recording.indexRebuilt) {
    add("index: " + Count(recording.indexed, "record") + " added, " +
        std::to_string(recording.unindexed) + " dropped");
  }
  if (recording.recordAdded) {
    add("record added");
  }
  if (recording.eventsAdded > 0) {
    add(Count(recording.eventsAdded, "event") + " added");
  }
  if (recording.state == cms::RepairState::kRemoved) {
    add("removed: nothing was recorded into it");
  }
  if (recording.state == cms::RepairState::kRecording) {
    add("left alone: somebody records into it");
  }
  if (recording.state == cms::RepairState::kMissing) {
    add(forgetMissing ? "its file is gone: record removed"
                      : "its file is gone (--forget-missing removes the record)");
  }
  if (recording.state == cms::RepairState::kFailed) {
    add(std::string("failed: ") + std::strerror(recording.error));
  }
  if (recording.strayBytes > 0) {
    add(Count(recording.strayBytes, "byte") + " of it belong to no frame");
  }
  return text;
}

// The folder list leads to what was recorded into DIR.
void ListFolder(const std::vector<RecordingFolder>& folders) {
  for (const RecordingFolder& folder : folders) {
    if (!folder.listed) {
      CRecFolderDBWriter().WriterRecFolderDB(0, kRecordings);
      return;
    }
  }
}

std::uint64_t CountRecordings(const std::vector<std::wstring>& folders) {
  std::uint64_t count = 0;
  for (const std::wstring& folder : folders) {
    std::error_code error;
    for (std::filesystem::directory_iterator at(cms::PathInData(folder), error), end;
         !error && at != end; at.increment(error)) {
      count += at->path().extension() == ".drv" ? 1 : 0;
    }
  }
  return count;
}

// Records whose file is gone go with their events, as a removal that was killed would have ended.
bool EndRemovals(const std::string& root) {
  const cms::RemovalReport report = cms::EndRemovals(root);
  for (const std::string& error : report.errors) {
    std::fprintf(stderr, "orvanta repair: %s\n", error.c_str());
  }
  return report.errors.empty();
}

int Repair(const RepairArguments& arguments) {
  const std::vector<RecordingFolder> folders = FindRecordingFolders();
  std::vector<std::wstring> paths;
  paths.reserve(folders.size());
  for (const RecordingFolder& folder : folders) {
    paths.push_back(folder.path);
  }
  ListFolder(folders);
  Json files = Json::array();
  Progress progress(CountRecordings(paths));
  std::uint64_t done = 0;
  cms::RepairOptions options;
  options.forgetMissing = arguments.forgetMissing;
  const auto report = cms::RepairRecordings(
      paths,
      [&](const cms::RepairedRecording& recording) {
        const std::string text = RepairedText(recording, arguments.forgetMissing);
        const std::string file = cms::Utf8FromWide(recording.path);
        if (!text.empty()) {
          files.push_back({{"file", file}, {"what", text}});
        }
        if (!text.empty() && !arguments.json) {
          progress.Wipe();
          std::printf("%s: %s\n", file.c_str(), text.c_str());
          std::fflush(stdout);
        }
        progress.Show(++done);
        return !StopRequested();
      },
      options);
  if (!report.complete) {
    throw std::runtime_error("stopped after " + Count(report.files, "recording") +
                             "; repair again for the rest");
  }
  if (arguments.json) {
    const Json object = {{"files", report.files},
                         {"records_added", report.recordsAdded},
                         {"events_added", report.eventsAdded},
                         {"missing", report.missing},
                         {"index_rebuilt", report.indexRebuilt},
                         {"spans_fixed", report.spansFixed},
                         {"repaired", report.repaired},
                         {"removed", report.removed},
                         {"recording", report.recording},
                         {"failed", report.failed},
                         {"changes", files}};
    std::printf("%s\n", object.dump(2).c_str());
  } else {
    std::printf(
        "%s in %s: %llu repaired, %llu removed, %llu being recorded, %llu failed; %s "
        "added, %s rebuilt, %s fixed.\n",
        Count(report.files, "recording").c_str(), Count(paths.size(), "folder").c_str(),
        static_cast<unsigned long long>(report.repaired),
        static_cast<unsigned long long>(report.removed),
        static_cast<unsigned long long>(report.recording),
        static_cast<unsigned long long>(report.failed),
        Count(report.recordsAdded, "record").c_str(),
        (std::to_string(report.indexRebuilt) + (report.indexRebuilt == 1 ? " index" : " indexes"))
            .c_str(),
        Count(report.spansFixed, "span").c_str());
  }
  for (const std::wstring& folder : report.failedFolders) {
    std::fprintf(stderr, "orvanta repair: the databases of %s cannot be read or written\n",
                 cms::Utf8FromWide(folder).c_str());
  }
  return report.failed == 0 && report.failedFolders.empty() ? 0 : 1;
}

}  // namespace

void AddRepairCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<RepairArguments>();
  const Command repair =
      app.Add("repair", "Make recordings, indexes and databases fit each other after a crash");
  AddDataOption(repair, arguments->data);
  repair.AddFlag("--json", arguments->json, "print one JSON object at the end");
  repair.AddFlag("--forget-missing", arguments->forgetMissing,
                 "remove the records of files that are gone");
  repair.Run([arguments, &result] {
    const DataFolder folder = EnterDataFolder(arguments->data, DataFolderUse::kChange);
    const bool ended = !arguments->forgetMissing || EndRemovals(folder.path);
    result.status = Repair(*arguments);
    result.status = ended ? result.status : 1;
  });
}

}  // namespace tools
