#include "tools/record_site.h"

#include <cstdio>
#include <filesystem>
#include <stdexcept>

#include "cms/recording/gap_log.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "tools/data_folder.h"
#include "tools/time_text.h"

namespace tools {
namespace {

constexpr unsigned kChannel = 0;
constexpr int kWriteOutMs = 30'000;  // for a slow disk

std::string Megabytes(std::uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

}  // namespace

RecordSite::RecordSite(const LiveOptions& live, const RecordOptions& options)
    : options_(options),
      number_(static_cast<unsigned>(live.number) + 1),
      live_(std::make_unique<LiveSite>(live)),
      day_(std::make_unique<DayFolder>(*live_, live, options.fileSizeMiB)) {
  url_ = live_->Url();
}

void RecordSite::Start() {
  CMSClientBase& client = live_->Client();
  started_ = Clock::now();
  startedSeconds_ = cms::WallSeconds();
  if (!options_.moveTo.empty()) {
    client.StartMoveFileToNAS(options_.moveTo.c_str());
  }
  if (options_.eventEvery > 0) {
    if (client.SetRecEventPreAlarm(kChannel, options_.preAlarm, 1) == 0) {
      throw std::runtime_error("no memory for a pre-alarm of " + std::to_string(options_.preAlarm) +
                               " s");
    }
    client.TurnOnRecordingState(kChannel, kRecordDeviceEvent);
  } else if (options_.schedule) {
    client.TurnOnRecordingState(kChannel, kRecordSchedule);
  } else if (client.StartRecord(kChannel, kRecordInstant) == 0) {
    day_->Refuse();
  }
  live_->Open();
}

void RecordSite::Look() {
  day_->Follow();
  LookForEvent();
  lastStatus_ = live_->Status();
  const auto files = live_->Client().TakeRecordedFiles();
  files_.insert(files_.end(), files.begin(), files.end());
}

void RecordSite::LookForEvent() {
  if (options_.eventEvery == 0) {
    return;
  }
  const auto seconds = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started_).count());
  const bool event =
      seconds >= options_.eventEvery && seconds % options_.eventEvery < options_.eventLength;
  live_->Client().SetEventState(kChannel, event ? kEventStateDeviceEvent : 0u);
}

void RecordSite::Finish() {
  CMSClientBase& client = live_->Client();
  lastStatus_ = live_->Status();
  live_->Close();
  stoppedSeconds_ = cms::WallSeconds();
  client.StopRecordAll();
  if (client.WaitRecorded(kWriteOutMs) == 0) {
    std::fprintf(stderr, "orvanta record: %s: the disk is slow; the last frames may be missing\n",
                 url_.c_str());
  }
  client.StopMoveFileToNAS();
  const auto files = client.TakeRecordedFiles();
  files_.insert(files_.end(), files.begin(), files.end());
  recorded_ = client.GetRecordingStatus();
  delivered_ = live_->EverDelivered();
  live_.reset();  // the last gap is in the log
}

std::string RecordSite::StatusLine() {
  std::string line = live_->StatusLine() + "  ";
  if (const auto gap = live_->Client().GetRecordingGap()) {
    return line + "nothing recorded since " + LocalTime(gap->from) + ": " +
           cms::GapCauseName(gap->cause);
  }
  return line + (live_->Client().IsRecording() != 0 ? "recording, " : "recorded ") +
         Megabytes(live_->Client().GetRecordingStatus().bytes);
}

std::string RecordSite::WhereIsNow(const std::wstring& drvPath) const {
  std::string path = AbsolutePath(cms::NativePath(drvPath));
  if (options_.moveTo.empty() || std::filesystem::exists(path)) {
    return path;
  }
  const std::filesystem::path old(path);
  return (std::filesystem::path(cms::NativePath(options_.moveTo)) / old.parent_path().filename() /
          old.filename())
      .string();
}

nlohmann::ordered_json RecordSite::Json() const {
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  for (const std::wstring& file : files_) {
    files.push_back(WhereIsNow(file));
  }
  nlohmann::ordered_json gaps = nlohmann::ordered_json::array();
  for (const cms::GapRow& gap : cms::ReadGapLog(0).rows) {
    const bool isOfThisRun = gap.from >= startedSeconds_ && gap.from < stoppedSeconds_;
    if (gap.siteNumber == number_ && isOfThisRun && gap.to != gap.from) {
      gaps.push_back({{"from", gap.from}, {"to", gap.to}, {"cause", cms::GapCauseName(gap.cause)}});
    }
  }
  return {{"site", number_},
          {"url", url_},
          {"frames", recorded_.frames - recorded_.lost.frames},
          {"key_frames", recorded_.keyFrames - recorded_.lost.keyFrames},
          {"bytes", recorded_.bytes - recorded_.lost.bytes},
          {"files", files},
          {"dropped", recorded_.waitingFrames + recorded_.failedFrames + recorded_.refusedFrames +
                          recorded_.lost.frames},
          {"gaps", gaps}};
}

}  // namespace tools
