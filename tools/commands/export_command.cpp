// orvanta export: recordings as MP4 and Matroska files, or a picture of them.
#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/playback/clip/recording_export.h"
#include "tools/commands/command.h"
#include "tools/commands/data_places.h"
#include "tools/data/data_folder.h"
#include "tools/data/data_roots.h"
#include "tools/support/fisheye_options.h"
#include "tools/support/picture_file.h"
#include "tools/support/progress.h"
#include "tools/support/stop_signal.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

struct ExportArguments {
  std::vector<std::string> files;  // recordings, and the file to write
  DataPlaces places;
  std::uint32_t site = 0;
  std::string from;
  std::string to;
  int stream = -1;
  FisheyeArguments fisheye;
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

void CheckUsage(const ExportArguments& arguments, const Command& command) {
  const bool fromData = arguments.places.Any();
  const std::string& out = arguments.files.back();
  if (!EndsWith(out, ".mp4") && !EndsWith(out, ".mkv") && !IsPicture(out)) {
    throw UsageError("\"" + out + "\": name the file to write last, as .mp4, .mkv or .jpg");
  }
  if (fromData && (arguments.files.size() != 1 || !command.Has("--site"))) {
    throw UsageError("--data and --config go with --site N and one file to write");
  }
  if (!fromData && arguments.files.size() < 2) {
    throw UsageError(
        "say what to export: --data DIR --site N (or --config FILE --site N), or a .drv file");
  }
  if (fromData && (arguments.from.empty() || (arguments.to.empty() && !IsPicture(out)))) {
    throw UsageError("say --from TIME and --to TIME (for a picture --from alone)");
  }
}

std::vector<cms::RecordingPart> WantedParts(const ExportArguments& arguments,
                                            const FoundPlaces& found, const std::string& out) {
  cms::RecordingPart interval;
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
  std::vector<cms::RecordingPart> parts;
  for (std::size_t i = 0; found.roots.empty() && i + 1 < arguments.files.size(); ++i) {
    interval.path = AbsolutePath(arguments.files[i]);
    parts.push_back(interval);
  }
  if (!found.roots.empty()) {
    parts = PartsOf(found.roots, arguments.site, interval.first, interval.last);
    if (parts.empty()) {
      throw std::runtime_error("site " + std::to_string(arguments.site) +
                               " has no recording there (see orvanta search)");
    }
  }
  return parts;
}

// The clip or picture is written, or the reason why not is thrown.
cms::ExportResult Write(const cms::RecordingSource& source, const std::string& out,
                        bool firstPicture) {
  std::optional<Progress> shown;
  const auto watch = [&shown](std::uint64_t done, std::uint64_t total) {
    if (!shown) {
      shown.emplace(total);
    }
    shown->Show(done);
    return !StopRequested();
  };
  cms::ExportResult result;
  if (!IsPicture(out)) {
    const auto container =
        EndsWith(out, ".mp4") ? cms::ClipContainer::kMp4 : cms::ClipContainer::kMatroska;
    result = cms::ExportRecording({source, out, container}, watch);
  } else {
    const cms::RecordedPicture picture = cms::DecodeRecordedPicture(
        source, firstPicture ? cms::WhichPicture::kFirst : cms::WhichPicture::kLast, watch);
    result.error = picture.error;
    if (picture.error.empty()) {
      WriteJpeg(out, picture);
    }
    result.frames = 1;
    result.first = result.last = picture.second;
    result.skippedBytes = picture.skippedBytes;
    result.skippedFrames = picture.skippedFrames;
  }
  if (!result.error.empty()) {
    throw std::runtime_error(result.error);
  }
  return result;
}

int RunExport(const ExportArguments& arguments, const Command& command) {
  CheckUsage(arguments, command);
  const std::string out = AbsolutePath(arguments.files.back());
  cms::RecordingSource source;
  FoundPlaces found;
  if (arguments.places.Any()) {
    found = EnterDataPlaces(arguments.places);
  }
  source.parts = WantedParts(arguments, found, out);
  if (arguments.stream >= 0) {
    source.stream = static_cast<unsigned>(arguments.stream);
  }
  source.fisheye = FisheyeOf(arguments.fisheye);
  const cms::ExportResult summary =
      Write(source, out, arguments.from.empty() && arguments.to.empty());
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
  if (summary.otherFrames != 0) {
    std::fprintf(stderr,
                 "orvanta export: there are pictures of other streams as well; choose with "
                 "--stream\n");
  }
  return TellPlacesAway(found, "export") ? 0 : 1;
}

}  // namespace

void AddExportCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<ExportArguments>();
  const Command command =
      app.Add("export", "Write recordings as MP4 or Matroska, or a picture of them");
  command
      .AddOption("files", arguments->files,
                 "recordings (without --data and --config), and last the file to write: .mp4, .mkv "
                 "or .jpg")
      .Required()
      .TypeName("[FILE.drv ...] OUT");
  AddDataPlaceOptions(command, arguments->places);
  command.AddOption("--site", arguments->site, "whose recordings").TypeName("N");
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
  AddFisheyeOptions(command, arguments->fisheye);
  command.AddFlag("--json", arguments->json, "print one JSON object; its times are in UTC");
  command.Run([arguments, command, &result] { result.status = RunExport(*arguments, command); });
}

}  // namespace tools
