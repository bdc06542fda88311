// orvanta inspect: what a recording holds, frame by frame, and whether its index fits.
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cms/live/media/codec_id.h"
#include "cms/recording/database_reader.h"
#include "cms/recording/drv_walker.h"
#include "cms/recording/idx_file.h"
#include "cms/streaming/stream_probes.h"
#include "tools/commands/command.h"
#include "tools/support/progress.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

struct InspectArguments {
  std::string file;
  bool frames = false;
  bool json = false;
};

struct Content {
  cms::DrvWalkReport walk;
  std::string codec;
  std::string audioCodec;
  Json frames = Json::array();
  cms::IdxRebuild index;
  bool hasIndex = false;
  bool recording = false;  // somebody appends to it

  // Records that point at no frame of theirs, and frames without one. What a recorder has not
  // indexed yet is no mismatch.
  std::uint64_t Mismatches() const {
    const std::uint64_t underway = recording ? index.behind : 0;
    const bool torn = index.tornBytes > 0 && !recording;
    return index.dropped + index.added - underway + (torn ? 1 : 0);
  }
};

// What the walk does not say about a frame: its header area and the beginning of its payload.
std::string CodecOf(cms::DrvWalker& walker, const cms::DrvFrame& frame) {
  if (frame.header.IsAudio()) {
    std::uint32_t codec = 0;
    std::memcpy(&codec, &frame.header.Bytes()[16], sizeof codec);
    const auto name = cms::CodecNameOf(static_cast<int>(codec));
    return !name.empty() || codec == cms::CMS_CODEC_NONE ? std::string(name)
                                                         : std::to_string(codec);
  }
  constexpr std::size_t kProbed = 8;
  std::array<std::uint8_t, 4096> bytes;
  const auto area = static_cast<std::size_t>(frame.payloadOffset - frame.offset);
  const std::size_t read = area + kProbed > bytes.size()
                               ? 0
                               : walker.Read(frame, std::span(bytes).first(area + kProbed));
  if (read < area + kProbed) {
    return "";
  }
  const cms::CMSVideoType type = cms::VideoTypeOfKeyFrame(std::span(bytes).first(area),
                                                          std::span(bytes).subspan(area, kProbed));
  return std::string(cms::EncodingNameOf(cms::CodecOfVideoType(type)));
}

const char* KindOf(const cms::DrvHeader& header) {
  return header.IsAudio() ? "audio" : header.IsKeyFrame() ? "key" : "video";
}

std::string MarksOf(const cms::DrvHeader& header) {
  if (header.IsAudio()) {
    return "";
  }
  const bool flags = header.MarksInFlags();
  const auto set = [&](std::uint8_t flag, std::uint16_t mask) {
    return flags ? (header.Flags() & flag) != 0 : mask != 0;
  };
  std::string marks;
  const auto add = [&marks](bool isSet, const char* name) {
    marks += !isSet ? "" : (marks.empty() ? "" : " ") + std::string(name);
  };
  add(set(cms::kDrvFlagDeviceEvent, header.EventMask()), "event");
  add(set(cms::kDrvFlagAlarm, header.AlarmMask()), "alarm");
  add(set(cms::kDrvFlagVideoLoss, header.VideoLossMask()), "loss");
  return marks;
}

Json RowOf(const cms::DrvFrame& frame) {
  return {{"offset", frame.offset},
          {"bytes", frame.End() - frame.offset},
          {"kind", KindOf(frame.header)},
          {"stream", frame.header.StreamNumber()},
          {"sequence", frame.header.IsAudio() ? 0 : frame.header.Sequence()},
          {"time", frame.header.Seconds()},
          {"marks", MarksOf(frame.header)}};
}

void PrintRow(const cms::DrvFrame& frame) {
  const cms::DrvHeader& header = frame.header;
  std::printf("%12llu %9llu  %-5s %6u %9s  %s  %s\n", static_cast<unsigned long long>(frame.offset),
              static_cast<unsigned long long>(frame.End() - frame.offset), KindOf(header),
              header.StreamNumber(),
              header.IsAudio() ? "-" : std::to_string(header.Sequence()).c_str(),
              cms::TextOfRecordTime(header.Seconds()).c_str(), MarksOf(header).c_str());
}

void Walk(const InspectArguments& arguments, int handle, Content& content) {
  cms::DrvWalker walker(cms::SystemFileIo(), handle);
  Progress progress(arguments.frames && !arguments.json ? 0 : walker.Report().fileSize);
  if (arguments.frames && !arguments.json) {
    std::printf("%12s %9s  %-5s %6s %9s  %-20s  %s\n", "offset", "bytes", "kind", "stream",
                "sequence", "time", "marks");
  }
  while (const auto frame = walker.Next()) {
    if (StopRequested()) {
      throw std::runtime_error("stopped before the end of " + arguments.file);
    }
    const cms::DrvHeader& header = frame->header;
    std::string& codec = header.IsAudio() ? content.audioCodec : content.codec;
    if (codec.empty()) {
      codec = CodecOf(walker, *frame);
    }
    if (arguments.frames && arguments.json) {
      content.frames.push_back(RowOf(*frame));
    } else if (arguments.frames) {
      PrintRow(*frame);
    }
    progress.Show(frame->End());
  }
  content.walk = walker.Report();
  if (content.walk.error != 0) {
    throw std::runtime_error(arguments.file + ": " + std::strerror(content.walk.error));
  }
}

Content Inspect(const InspectArguments& arguments) {
  cms::FileIo& io = cms::SystemFileIo();
  Content content;
  const cms::ScopedFile file(io, arguments.file, cms::kFileRead);
  cms::FileStatus status;
  if (!file || !io.Status(arguments.file, status)) {
    throw std::runtime_error(arguments.file + ": " + std::strerror(errno));
  }
  if (!status.isRegular) {
    throw std::runtime_error(arguments.file + ": is not a file");
  }
  {
    const cms::ScopedFile lock(io, arguments.file, cms::kFileRead | cms::kFileExclusive);
    content.recording = !lock && errno == EWOULDBLOCK;
  }
  const std::string idx = std::filesystem::path(arguments.file).replace_extension(".idx").string();
  if (idx == arguments.file) {
    throw std::runtime_error(arguments.file + ": is an index; name the recording, a .drv file");
  }
  // The index first: its records then point into what the walk sees, also while both grow.
  content.index = cms::CompareIdx(io, arguments.file, idx);
  if (!content.index.done) {
    throw std::runtime_error(idx + ": " + std::strerror(content.index.error));
  }
  content.hasIndex = io.Exists(idx);
  Walk(arguments, file.Handle(), content);
  if (content.walk.frames == 0 && content.walk.tail == cms::DrvTail::kForeign) {
    throw std::runtime_error(arguments.file + ": is no recording, it holds no frame");
  }
  return content;
}

std::string TailText(const cms::DrvWalkReport& walk) {
  const std::string bytes = std::to_string(walk.tailLength) + " bytes";
  switch (walk.tail) {
    case cms::DrvTail::kTornFrame:
      return "a torn frame of " + bytes;
    case cms::DrvTail::kPartialHeader:
      return "a torn header of " + bytes;
    case cms::DrvTail::kZeros:
      return bytes + " of zeros, never written";
    case cms::DrvTail::kForeign:
      return bytes + " that are no frame";
    default:
      return "whole";
  }
}

unsigned long long Long(std::uint64_t number) {
  return number;
}

void PrintContent(const InspectArguments& arguments, const Content& content) {
  const cms::DrvWalkReport& walk = content.walk;
  const auto line = [](const char* name, const std::string& text) {
    std::printf("  %-11s %s\n", name, text.c_str());
  };
  const auto number = [](std::uint64_t value) { return std::to_string(value); };
  std::printf("%s%s\n", arguments.frames ? "\n" : "", arguments.file.c_str());
  line("size", number(walk.fileSize) + " bytes" +
                   (content.recording ? ", being recorded at this moment" : ""));
  line("time",
       walk.firstSeconds == 0
           ? "-"
           : cms::TextOfRecordTime(walk.firstSeconds) + " to " +
                 cms::TextOfRecordTime(walk.lastSeconds) + " (" +
                 std::to_string(walk.latestSeconds - walk.earliestSeconds) + " s" +
                 (walk.lastSeconds < walk.latestSeconds ? ", the clock stepped back)" : ")"));
  line("codec", (content.codec.empty() ? "-" : content.codec) +
                    (content.audioCodec.empty() ? "" : ", sound " + content.audioCodec));
  line("frames", number(walk.frames) + ": " + number(walk.frames - walk.audioFrames) + " video, " +
                     number(walk.keyFrames) + " of them key frames, " + number(walk.audioFrames) +
                     " audio");
  line("skipped", number(walk.skippedBytes) + " bytes that belong to no frame");
  for (const auto& range : walk.skipped) {
    std::printf("  %-11s %llu bytes at %llu\n", "", Long(range.length), Long(range.offset));
  }
  line("bad checks", number(walk.badChecks));
  line("end", TailText(walk));
  const cms::IdxRebuild& index = content.index;
  if (!content.hasIndex) {
    line("index", "missing");
  } else {
    line("index", number(index.records - index.added + index.dropped) + " records" +
                      (index.keyFramesOnly ? " of key frames alone" : "") + ", " +
                      number(content.Mismatches()) + " mismatches");
  }
  if (content.Mismatches() != 0) {
    line("", number(index.dropped) + " records without a frame, " + number(index.added) +
                 " frames without a record" +
                 (index.tornBytes > 0 ? ", the last record torn" : ""));
  }
  const bool cuttable = walk.tail != cms::DrvTail::kNone && walk.tail != cms::DrvTail::kForeign;
  if (!content.recording && (content.Mismatches() != 0 || cuttable)) {
    std::printf("orvanta repair makes the index fit and cuts what is torn.\n");
  }
}

void PrintContentJson(const InspectArguments& arguments, Content& content) {
  constexpr const char* kTails[] = {"whole", "torn frame", "torn header", "zeros", "foreign"};
  const cms::DrvWalkReport& walk = content.walk;
  const cms::IdxRebuild& index = content.index;
  Json report = {{"frames", walk.frames},
                 {"video", walk.frames - walk.audioFrames},
                 {"audio", walk.audioFrames},
                 {"key_frames", walk.keyFrames},
                 {"bytes", walk.fileSize},
                 {"skipped_bytes", walk.skippedBytes},
                 {"bad_checks", walk.badChecks},
                 {"idx_records", index.records - index.added + index.dropped},
                 {"idx_mismatches", content.Mismatches()},
                 {"first", walk.firstSeconds},
                 {"last", walk.lastSeconds},
                 {"codec", content.codec},
                 {"audio_codec", content.audioCodec},
                 {"end", kTails[static_cast<std::size_t>(walk.tail)]},
                 {"recording", content.recording}};
  if (arguments.frames) {
    report["frame_list"] = std::move(content.frames);
  }
  std::printf("%s\n", report.dump(2).c_str());
}

}  // namespace

void AddInspectCommand(Command app, CommandResult& /*result*/) {
  auto arguments = std::make_shared<InspectArguments>();
  const Command inspect =
      app.Add("inspect", "Walk through a recording and compare its index with it");
  inspect.AddOption("FILE", arguments->file, "the .drv file; its .idx lies beside it").Required();
  inspect.AddFlag("--frames", arguments->frames, "list every frame");
  inspect.AddFlag("--json", arguments->json, "print one JSON object at the end");
  inspect.Run([arguments] {
    Content content = Inspect(*arguments);
    if (arguments->json) {
      PrintContentJson(*arguments, content);
    } else {
      PrintContent(*arguments, content);
    }
  });
}

}  // namespace tools
