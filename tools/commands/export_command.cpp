// orvanta export: recordings as MP4 and Matroska files, or a picture of them.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/playback/local_pb_search_engine.h"
#include "cms/runtime/native_path.h"
#include "tools/commands/command.h"
#include "tools/data/data_folder.h"
#include "tools/data/recording_export.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

struct Arguments {
  std::vector<std::string> files;  // recordings, and the file to write
  std::string data;
  std::uint32_t site = 0;
  std::string from;
  std::string to;
  int stream = -1;
  bool json = false;
};

bool EndsWith(const std::string& path, const std::string& extension) {
  std::string own = std::filesystem::path(path).extension().string();
  std::transform(own.begin(), own.end(), own.begin(),
                 [](char each) { return each >= 'A' && each <= 'Z' ? each - 'A' + 'a' : each; });
  return own == extension;
}

bool IsPicture(const std::string& path) {
  return EndsWith(path, ".jpg") || EndsWith(path, ".jpeg");
}

void CheckUsage(const Arguments& arguments, const Command& command) {
  const bool fromData = !arguments.data.empty();
  const std::string& out = arguments.files.back();
  if (!EndsWith(out, ".mp4") && !EndsWith(out, ".mkv") && !IsPicture(out)) {
    throw UsageError("\"" + out + "\": name the file to write last, as .mp4, .mkv or .jpg");
  }
  if (fromData && (arguments.files.size() != 1 || !command.Has("--site"))) {
    throw UsageError("--data goes with --site N and one file to write");
  }
  if (!fromData && arguments.files.size() < 2) {
    throw UsageError("say what to export: --data DIR --site N, or a .drv file");
  }
  if (fromData && (arguments.from.empty() || (arguments.to.empty() && !IsPicture(out)))) {
    throw UsageError("say --from TIME and --to TIME (for a picture --from alone)");
  }
}

// The recordings of a site in an interval, in the order of play.
std::vector<RecordingPart> FindParts(std::uint32_t site, std::int64_t from, std::int64_t to) {
  LocalPBSearchEngine engine;
  engine.searchByInterval(from, to);
  std::vector<RecordingPart> parts;
  for (const stPBTimeInfo& span : engine.getNormalPBInfo()) {
    for (std::size_t i = 0; span.siteNumber == site && i < span.records.size(); ++i) {
      const auto& record = span.records[i];
      RecordingPart part;
      part.path = cms::NativePath(record.GetFilenameW());
      part.first = from;
      part.last = std::min(record.GetEndTime(), to);
      part.sharesSecond = i + 1 < span.records.size() &&
                          span.records[i + 1].GetStartTime() == part.last + 1 && part.last < to;
      parts.push_back(std::move(part));
    }
  }
  return parts;
}

std::vector<RecordingPart> PartsOf(const Arguments& arguments, const std::string& out) {
  ExportInterval interval;
  if (!arguments.from.empty()) {
    interval.first = ReadTime("--from", arguments.from);
  }
  if (!arguments.to.empty()) {
    interval.last = ReadTime("--to", arguments.to, DayEdge::kLastSecond);
  } else if (IsPicture(out) && !arguments.from.empty()) {
    interval.last = interval.first;
  }
  if (interval.first > interval.last) {
    throw UsageError("--to", "lies before --from");
  }
  std::vector<RecordingPart> parts;
  for (std::size_t i = 0; arguments.data.empty() && i + 1 < arguments.files.size(); ++i) {
    parts.push_back({AbsolutePath(arguments.files[i]), interval.first, interval.last, false});
  }
  if (!arguments.data.empty()) {
    EnterDataFolder(arguments.data, DataFolderUse::kRead);
    parts = FindParts(arguments.site, interval.first, interval.last);
    if (parts.empty()) {
      throw std::runtime_error("site " + std::to_string(arguments.site) +
                               " has no recording there (see orvanta search)");
    }
  }
  return parts;
}

int Run(const Arguments& arguments, const Command& command) {
  CheckUsage(arguments, command);
  const std::string out = AbsolutePath(arguments.files.back());
  ExportOptions options;
  options.path = out;
  options.parts = PartsOf(arguments, out);
  if (arguments.stream >= 0) {
    options.stream = static_cast<unsigned>(arguments.stream);
  }
  options.firstPicture = arguments.from.empty() && arguments.to.empty();
  options.container = EndsWith(out, ".mp4") ? ClipContainer::kMp4 : ClipContainer::kMatroska;
  const ExportSummary summary = IsPicture(out) ? ExportPicture(options) : ExportClip(options);
  if (arguments.json) {
    nlohmann::ordered_json json = {
        {"frames", summary.frames},        {"duration", summary.duration},
        {"skipped", summary.skippedBytes}, {"skipped_frames", summary.skippedFrames},
        {"start", UtcTime(summary.first)}, {"end", UtcTime(summary.last)},
        {"audio", summary.audio}};
    std::printf("%s\n", json.dump(2).c_str());
  } else {
    std::printf("%s: %llu frame%s, %.3f s, %s to %s%s\n", out.c_str(),
                static_cast<unsigned long long>(summary.frames), summary.frames == 1 ? "" : "s",
                summary.duration, LocalTime(summary.first).c_str(), LocalTime(summary.last).c_str(),
                summary.audio ? ", with sound" : "");
    if (summary.skippedBytes != 0 || summary.skippedFrames != 0) {
      std::printf("damaged: %llu bytes skipped, and %llu frames that needed them\n",
                  static_cast<unsigned long long>(summary.skippedBytes),
                  static_cast<unsigned long long>(summary.skippedFrames));
    }
  }
  for (const std::string& note : summary.notes) {
    std::fprintf(stderr, "orvanta export: %s\n", note.c_str());
  }
  return 0;
}

}  // namespace

void AddExportCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<Arguments>();
  const Command command =
      app.Add("export", "Write recordings as MP4 or Matroska, or a picture of them");
  command
      .AddOption("files", arguments->files,
                 "recordings (without --data), and last the file to write: .mp4, .mkv or .jpg")
      .Required()
      .TypeName("[FILE.drv ...] OUT");
  AddDataOption(command, arguments->data).Required(false);
  command.AddOption("--site", arguments->site, "whose recordings of --data").TypeName("N");
  command
      .AddOption("--from", arguments->from,
                 "2026-11-21T10:30:00 (local), ...Z (UTC), ...+01:00, or 2026-11-21; a picture is "
                 "the one of this time")
      .TypeName("TIME");
  command.AddOption("--to", arguments->to, "likewise; a day alone is its end").TypeName("TIME");
  command
      .AddOption("--stream", arguments->stream,
                 "which of several streams in a file; without it that of the first picture")
      .InRange(0, 3);
  command.AddFlag("--json", arguments->json, "print one JSON object; its times are in UTC");
  command.Run([arguments, command, &result] { result.status = Run(*arguments, command); });
}

}  // namespace tools
