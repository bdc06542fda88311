// orvanta remove: recordings with all that belongs to them.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "cms/recording/keep/remove_recordings.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/support/removal_progress.h"
#include "tools/support/removal_text.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

struct RemoveArguments {
  std::string data;
  std::vector<std::uint32_t> sites;
  std::string before;
  std::vector<std::string> files;
  bool dryRun = false;
  bool json = false;
};

bool HasFailed(const cms::RemovalReport& report, bool named) {
  return !report.errors.empty() ||
         std::any_of(report.staying.begin(), report.staying.end(), [named](const auto& staying) {
           return named || staying.why == cms::StayReason::kFailed;
         });
}

int Remove(const RemoveArguments& arguments) {
  if (arguments.files.empty() == (arguments.sites.empty() && arguments.before.empty())) {
    throw UsageError("name --site, --before or both, or else the files to remove");
  }
  cms::RemoveOptions options;
  options.root = AbsolutePath(arguments.data);
  options.sites = arguments.sites;
  options.before = arguments.before.empty() ? 0 : ReadTime("--before", arguments.before);
  for (const std::string& file : arguments.files) {
    options.files.push_back(AbsolutePath(file));
  }
  RemovalProgress progress;
  if (RemovalProgress::IsShown() && !arguments.dryRun) {
    options.dryRun = true;
    progress.Expect(cms::RemoveRecordings(options));
  }
  options.dryRun = arguments.dryRun;
  options.visit = progress.Visit();
  const cms::RemovalReport report = cms::RemoveRecordings(options);
  progress.Wipe();
  if (arguments.json) {
    std::printf("%s\n", RemovalJson(report).dump(2).c_str());
  } else if (!report.removed.empty() || report.errors.empty()) {
    PrintRemoval(report, arguments.dryRun);
  }
  PrintRemovalErrors("remove", report);
  return HasFailed(report, !arguments.files.empty()) ? 1 : 0;
}

}  // namespace

void AddRemoveCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<RemoveArguments>();
  const Command remove =
      app.Add("remove", "Remove recordings with their indexes, records and events");
  AddDataOption(remove, arguments->data);
  const Option files = remove.AddOption("FILE", arguments->files, "recordings of DIR");
  remove.AddOption("--site", arguments->sites, "all recordings of this site; may be repeated")
      .TypeName("N")
      .Repeatable()
      .Excludes(files);
  remove
      .AddOption("--before", arguments->before,
                 "only what ended before: 2026-11-21T10:30:00 (local), ...Z, or 2026-11-21")
      .TypeName("TIME")
      .Excludes(files);
  remove.AddFlag("--dry-run", arguments->dryRun, "say what would be removed, and remove nothing");
  remove.AddFlag("--json", arguments->json, "print one JSON object; its times are in UTC");
  remove.Run([arguments, &result] { result.status = Remove(*arguments); });
}

}  // namespace tools
