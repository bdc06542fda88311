// orvanta protect: recordings that are kept whatever the limits say.
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/recording/keep/protect_recordings.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct ProtectArguments {
  std::string data;
  std::optional<std::uint32_t> site;
  std::string from;
  std::string to;
  std::vector<std::string> files;
  bool off = false;
  bool json = false;
};

std::vector<cms::SiteSpan> ReadSpans(const ProtectArguments& arguments, const std::string& root) {
  if (arguments.site) {
    if (arguments.from.empty() || arguments.to.empty()) {
      throw UsageError("--site", "say --from TIME and --to TIME as well");
    }
    const cms::SiteSpan span{*arguments.site, ReadTime("--from", arguments.from),
                             ReadTime("--to", arguments.to, DayEdge::kLastSecond)};
    if (span.from > span.to) {
      throw UsageError("--to", "lies before --from");
    }
    return {span};
  }
  if (!arguments.from.empty() || !arguments.to.empty()) {
    throw UsageError("--from and --to: say --site as well");
  }
  std::vector<std::string> files;
  for (const std::string& file : arguments.files) {
    files.push_back(AbsolutePath(file));
  }
  std::vector<cms::SiteSpan> spans;
  const auto found = cms::SpansOfRecordings(root, files);
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (!found[i]) {
      throw std::runtime_error(files[i] + ": no recording of " + root);
    }
    spans.push_back(*found[i]);
  }
  return spans;
}

int Protect(const ProtectArguments& arguments) {
  const std::string root = AbsolutePath(arguments.data);
  const std::vector<cms::SiteSpan> spans = ReadSpans(arguments, root);
  if (spans.empty() && arguments.off) {
    throw UsageError("--off", "name --site, --from and --to, or files");
  }
  for (const cms::SiteSpan& span : spans) {
    const std::string error =
        arguments.off ? cms::ReleaseRecordings(root, span) : cms::ProtectRecordings(root, span);
    if (!error.empty()) {
      throw std::runtime_error(error);
    }
  }
  const cms::ProtectedSpans list = cms::ReadProtectedSpans(root);
  if (!list.error.empty()) {
    throw std::runtime_error(list.error);
  }
  Json rows = Json::array();
  for (const cms::ProtectedSpan& each : list.spans) {
    rows.push_back({{"site", each.span.site},
                    {"from", UtcTime(each.span.from)},
                    {"to", UtcTime(each.span.to)},
                    {"since", UtcTime(each.since)}});
    if (!arguments.json) {
      std::printf("site %u  %s  %s  protected since %s\n", each.span.site,
                  LocalTime(each.span.from).c_str(), LocalTime(each.span.to).c_str(),
                  LocalTime(each.since).c_str());
    }
  }
  if (arguments.json) {
    std::printf("%s\n", Json{{"protected", rows}}.dump(2).c_str());
  } else if (rows.empty()) {
    std::printf("Nothing is protected.\n");
  }
  return 0;
}

}  // namespace

void AddProtectCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<ProtectArguments>();
  const Command protect =
      app.Add("protect", "Protect recordings from being removed, and list what is protected");
  AddDataOption(protect, arguments->data);
  const Option files =
      protect.AddOption("FILE", arguments->files, "recordings of DIR, in place of a site's span");
  protect.AddOption("--site", arguments->site, "whose recordings").TypeName("N").Excludes(files);
  protect
      .AddOption("--from", arguments->from,
                 "2026-11-21T10:30:00 (local), ...Z (UTC), ...+01:00, or 2026-11-21")
      .TypeName("TIME");
  protect.AddOption("--to", arguments->to, "likewise; a day alone is its end").TypeName("TIME");
  protect.AddFlag("--off", arguments->off, "protect them no longer");
  protect.AddFlag("--json", arguments->json, "print one JSON object; its times are in UTC");
  protect.Run([arguments, &result] { result.status = Protect(*arguments); });
}

}  // namespace tools
