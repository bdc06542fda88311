#include "tools/support/record_site.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <utility>

#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "tools/support/camera_site.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

constexpr unsigned kChannel = 0;
constexpr std::size_t kMostRemembered = 1'000;  // files, and gaps

std::string Megabytes(std::uint64_t bytes) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f MB", static_cast<double>(bytes) / 1e6);
  return text;
}

template <typename Gaps>
nlohmann::ordered_json JsonOf(const Gaps& gaps) {
  nlohmann::ordered_json rows = nlohmann::ordered_json::array();
  for (const auto& gap : gaps) {
    rows.push_back({{"from", gap.from}, {"to", gap.to}, {"cause", cms::GapCauseName(gap.cause)}});
  }
  return rows;
}

}  // namespace

RecordSite::RecordSite(const LiveOptions& live, const RecordOptions& options)
    : options_(options),
      number_(static_cast<unsigned>(live.number) + 1),
      live_(std::make_unique<LiveSite>(live)),
      day_(std::make_unique<DayFolder>(*live_, live, options.fileSizeMiB)) {
  url_ = live_->Url();
  if (!options.events.empty()) {
    if (live.onvif.empty()) {
      throw UsageError("--events", url_ + ": only a camera named by onvif[s]:// tells of events");
    }
    events_ = std::make_unique<CameraEvents>(
        *options.onvifEvents, AccessOf(live.onvif, live.user, live.password, live.security),
        options.events);
  }
}

void RecordSite::Start() {
  CMSClientBase& client = live_->Client();
  started_ = Clock::now();
  startedSeconds_ = cms::WallSeconds();
  if (!options_.moveTo.empty()) {
    client.StartMoveFileToNAS(options_.moveTo.c_str());
  }
  if (options_.eventEvery > 0 || events_) {
    if (client.SetRecEventPreAlarm(kChannel, options_.preAlarm, 1) == 0) {
      throw std::runtime_error("no memory for a pre-alarm of " + std::to_string(options_.preAlarm) +
                               " s");
    }
    for (const cms::RecordKind kind : cms::kEventKinds) {
      const unsigned states = events_ ? events_->States() : unsigned{cms::kEventStateDeviceEvent};
      if ((states & cms::BitOf(kind)) != 0) {
        client.TurnOnRecordingState(kChannel, cms::NumberOf(kind));
      }
    }
  } else if (options_.schedule) {
    client.TurnOnRecordingState(kChannel, cms::kRecordSchedule);
  } else if (client.StartRecord(kChannel, cms::kRecordInstant) == 0) {
    day_->Refuse();
  }
  live_->Open();
}

void RecordSite::Look() {
  day_->Follow();
  LookForEvent();
  LookForGap();
  lastStatus_ = live_->Status();
  delivered_ = live_->EverDelivered();
  TakeFiles();
}

void RecordSite::TakeFiles() {
  for (std::wstring& file : live_->Client().TakeRecordedFiles()) {
    if (!files_.empty() && files_.back() == file) {  // it was continued
      continue;
    }
    if (files_.size() == kMostRemembered) {
      files_.pop_front();
      ++earlierFiles_;
    }
    files_.push_back(std::move(file));
  }
}

void RecordSite::LookForGap() {
  const auto gap = live_->Client().GetRecordingGap();
  if (gap_ && (!gap || gap->from != gap_->from || gap->cause != gap_->cause)) {
    EndGap(gap ? gap->from : cms::WallSeconds());
  }
  gap_ = gap;
}

void RecordSite::EndGap(std::int64_t to) {
  if (gaps_.size() == kMostRemembered) {
    gaps_.pop_front();
  }
  gaps_.push_back({gap_->from, to, gap_->cause});
  gap_.reset();
}

void RecordSite::LookForEvent() {
  if (events_) {
    live_->Client().SetEventState(kChannel, events_->State());
  }
  if (options_.eventEvery == 0) {
    return;
  }
  const auto seconds = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started_).count());
  const bool event =
      seconds >= options_.eventEvery && seconds % options_.eventEvery < options_.eventLength;
  live_->Client().SetEventState(kChannel, event ? cms::kEventStateDeviceEvent : 0u);
}

void RecordSite::LookLast() {
  Look();
  recorded_ = live_->Client().GetRecordingStatus();
  stoppedSeconds_ = cms::WallSeconds();
  if (gap_) {
    EndGap(stoppedSeconds_);
  }
  Publish(false);
}

void RecordSite::Stop() {
  events_.reset();
  live_->Close();
  live_->Client().StopRecordAll();
}

void RecordSite::WriteOut(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
  written_ =
      live_->Client().WaitRecorded(static_cast<int>(std::max<std::int64_t>(left.count(), 0))) != 0;
  recorded_ = live_->Client().GetRecordingStatus();
  delivered_ = live_->EverDelivered();
  TakeFiles();
  Publish(false);
}

void RecordSite::Finish() {
  live_->Client().StopMoveFileToNAS();
  TakeFiles();
  live_.reset();  // the last gap is in the log
  Publish(true);
}

void RecordSite::Publish(bool finished) {
  RecordSummary summary{Json(finished), finished && written_ ? "" : NotStored(), delivered_};
  const std::lock_guard lock(mutex_);
  summary_ = std::move(summary);
}

RecordSummary RecordSite::Summary() const {
  const std::lock_guard lock(mutex_);
  return summary_;
}

std::string RecordSite::NotStored() const {
  const int error = recorded_.lastError;
  const bool lasting = error == ENOSPC || error == EDQUOT || error == EROFS;
  std::string text = url_ + ": ";
  text += lasting ? std::strerror(error) : "the disk or the storage does not answer in time";
  text += "; the last frames or their records may not be stored";
  if (recorded_.lateRecords + recorded_.lateEvents > 0) {
    text += " (of " + std::to_string(recorded_.lateRecords) + " files and " +
            std::to_string(recorded_.lateEvents) + " events the record waits)";
  }
  return text + ": when it is well, run orvanta repair";
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

std::string RecordSite::PathOf(const std::wstring& drvPath) const {
  return (std::filesystem::path(options_.recordings) / cms::NativePath(drvPath))
      .lexically_normal()
      .string();
}

std::string RecordSite::WhereIsNow(const std::wstring& drvPath) const {
  const std::filesystem::path path(PathOf(drvPath));
  std::error_code unknown;
  if (options_.moveTo.empty() || std::filesystem::exists(path, unknown)) {
    return path.string();
  }
  return (std::filesystem::path(cms::NativePath(options_.moveTo)) / path.parent_path().filename() /
          path.filename())
      .string();
}

// Those of the log, which knows them best, and in between those that it could not take.
nlohmann::ordered_json RecordSite::Gaps() const {
  std::deque<Gap> gaps;
  for (const cms::GapRow& row : cms::ReadGapLog(0).rows) {
    const bool isOfThisRun = row.from >= startedSeconds_ && row.from < stoppedSeconds_;
    if (row.siteNumber == number_ && isOfThisRun && row.to != row.from) {
      gaps.push_back({row.from, row.to, row.cause});
    }
  }
  const std::size_t logged = gaps.size();
  for (const Gap& gap : gaps_) {
    const auto end = gaps.begin() + static_cast<std::ptrdiff_t>(logged);
    const bool known = std::any_of(gaps.begin(), end, [&](const Gap& other) {
      return other.from == gap.from && other.cause == gap.cause;
    });
    if (!known && gap.to != gap.from) {
      gaps.push_back(gap);
    }
  }
  std::stable_sort(gaps.begin(), gaps.end(),
                   [](const Gap& a, const Gap& b) { return a.from < b.from; });
  return JsonOf(gaps);
}

// Before the end nothing is asked of the disk.
nlohmann::ordered_json RecordSite::Json(bool finished) const {
  nlohmann::ordered_json files = nlohmann::ordered_json::array();
  for (const std::wstring& file : files_) {
    files.push_back(finished ? WhereIsNow(file) : PathOf(file));
  }
  return {{"site", number_},
          {"url", url_},
          {"frames", recorded_.frames - recorded_.lost.frames},
          {"key_frames", recorded_.keyFrames - recorded_.lost.keyFrames},
          {"bytes", recorded_.bytes - recorded_.lost.bytes},
          {"files", files},
          {"earlier_files", earlierFiles_},
          {"dropped", recorded_.waitingFrames + recorded_.failedFrames + recorded_.refusedFrames +
                          recorded_.lost.frames},
          {"gaps", finished ? Gaps() : JsonOf(gaps_)}};
}

}  // namespace tools
