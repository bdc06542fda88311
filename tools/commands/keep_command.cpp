// orvanta keep: keeps a data folder's recordings within limits, once.
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "cms/recording/keep/keep_recordings.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/support/byte_text.h"
#include "tools/support/removal_progress.h"
#include "tools/support/removal_text.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct KeepArguments {
  std::string data;
  int days = 0;
  std::string bytes;
  std::string free;
  bool dryRun = false;
  bool json = false;
};

std::string LimitText(const cms::LimitLeft& left) {
  const char* const limit = left.limit == cms::RemovalReason::kFreeSpace ? "--free" : "--bytes";
  return std::string(limit) + " is missed by " + TextOfBytes(left.over) +
         ": what is left is protected or in use";
}

Json KeptJson(const cms::KeepReport& report) {
  Json json = RemovalJson(report.removal);
  json["files"] = report.storage.files;
  json["bytes"] = report.storage.bytes;
  json["limits_missed"] = Json::array();
  for (const cms::LimitLeft& left : report.left) {
    json["limits_missed"].push_back({{"disk", left.disk}, {"over", left.over}});
  }
  json["warnings"] = Json::array();
  for (const cms::FullWarning& warning : report.warnings) {
    json["warnings"].push_back(
        {{"disk", warning.disk}, {"full_at", UtcTime(warning.fullAt)}, {"text", warning.text}});
  }
  return json;
}

int Keep(const KeepArguments& arguments) {
  cms::KeepOptions options;
  options.root = AbsolutePath(arguments.data);
  options.days = arguments.days;
  options.bytes = arguments.bytes.empty() ? 0 : ReadBytes("--bytes", arguments.bytes);
  options.freeBytes = arguments.free.empty() ? 0 : ReadBytes("--free", arguments.free);
  if (options.days == 0 && options.bytes == 0 && options.freeBytes == 0) {
    throw UsageError("name a limit: --days, --bytes or --free");
  }
  RemovalProgress progress;
  if (RemovalProgress::IsShown() && !arguments.dryRun) {
    options.dryRun = true;
    progress.Expect(cms::KeepRecordings(options).removal);
  }
  options.dryRun = arguments.dryRun;
  options.visit = progress.Visit();
  const cms::KeepReport report = cms::KeepRecordings(options);
  progress.Wipe();
  if (arguments.json) {
    std::printf("%s\n", KeptJson(report).dump(2).c_str());
  } else if (report.removal.errors.empty()) {
    PrintRemoval(report.removal, arguments.dryRun);
    std::printf("%llu recordings of %s are there.\n",
                static_cast<unsigned long long>(report.storage.files),
                TextOfBytes(report.storage.bytes).c_str());
  }
  PrintRemovalErrors("keep", report.removal);
  for (const cms::LimitLeft& left : report.left) {
    std::fprintf(stderr, "orvanta keep: %s\n", LimitText(left).c_str());
  }
  for (const cms::FullWarning& warning : report.warnings) {
    std::fprintf(stderr, "orvanta keep: %s\n", warning.text.c_str());
  }
  return report.removal.errors.empty() && report.left.empty() ? 0 : 1;
}

}  // namespace

void AddKeepCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<KeepArguments>();
  const Command keep =
      app.Add("keep", "Keep recordings within limits: remove the oldest that are beyond them");
  AddDataOption(keep, arguments->data);
  keep.AddOption("--days", arguments->days, "keep today and so many local days before it")
      .InRange(0, 36'500);
  keep.AddOption("--bytes", arguments->bytes, "of all recordings: 500G, 1.5T").TypeName("SIZE");
  keep.AddOption("--free", arguments->free, "free on each disk of them: 20G").TypeName("SIZE");
  keep.AddFlag("--dry-run", arguments->dryRun, "say what would be removed, and remove nothing");
  keep.AddFlag("--json", arguments->json, "print one JSON object; its times are in UTC");
  keep.Run([arguments, &result] { result.status = Keep(*arguments); });
}

}  // namespace tools
