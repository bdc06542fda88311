// One camera of `orvanta record`: what is recorded of it, into which files.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "cms/recording/gap_log.h"
#include "tools/data/day_folder.h"
#include "tools/support/camera_events.h"
#include "tools/support/live_site.h"

namespace tools {

struct RecordOptions {
  int fileSizeMiB = 256;
  bool schedule = false;
  unsigned eventEvery = 0;  // seconds; 0: everything is recorded
  unsigned eventLength = 5;
  unsigned preAlarm = 0;
  std::vector<std::string> events;          // of the camera's own, by CameraEventWords
  cms::OnvifEvents* onvifEvents = nullptr;  // hears them for all sites
  std::wstring moveTo;                      // as the library writes paths; empty: nowhere
  std::string recordings;                   // the folder of all, absolute
};

// What came of a site's recording.
struct RecordSummary {
  nlohmann::ordered_json json;
  std::string notStored;   // for people, and what to do about it; empty when all is in its place
  bool delivered = false;  // a frame arrived
};

// The process has its data root. Site N is the N-th URL. Start, Look and LookLast on one
// thread, then the three that end it, in their order, on any one; Summary on any.
class RecordSite {
 public:
  using Clock = std::chrono::steady_clock;

  // Throws std::runtime_error for a URL that cannot be read.
  RecordSite(const LiveOptions& live, const RecordOptions& options);

  // Connects in the background and begins recording; throws std::runtime_error when nothing can be
  // written.
  void Start();
  void Look();  // several times a second: events, the day's folder and what there is to remember

  void LookLast();  // on the thread of Look

  void Stop();                           // what arrives from now on is not recorded
  void WriteOut(Clock::time_point end);  // waits so long for the disk, if that makes sense
  void Finish();                         // moves the last files and writes the last gap

  // Of the end, or, before Finish has returned, of what LookLast and the steps so far know.
  RecordSummary Summary() const;

  const cms::ConnectionStatus& Status() const { return lastStatus_; }  // when last looked
  const std::string& Url() const { return url_; }
  std::string StatusLine();

 private:
  struct Gap {
    std::int64_t from = 0;
    std::int64_t to = 0;
    cms::GapCause cause = cms::GapCause::kUnknown;
  };

  void LookForEvent();
  void LookForGap();
  void EndGap(std::int64_t to);
  void TakeFiles();
  std::string PathOf(const std::wstring& drvPath) const;
  std::string WhereIsNow(const std::wstring& drvPath) const;
  nlohmann::ordered_json Gaps() const;
  nlohmann::ordered_json Json(bool finished) const;
  std::string NotStored() const;
  void Publish(bool finished);

  const RecordOptions options_;
  const unsigned number_;  // from 1
  std::string url_;
  std::unique_ptr<LiveSite> live_;
  std::unique_ptr<DayFolder> day_;        // of the live site
  std::unique_ptr<CameraEvents> events_;  // of the camera; none: not asked for
  Clock::time_point started_;
  std::int64_t startedSeconds_ = 0;
  std::int64_t stoppedSeconds_ = 0;
  std::deque<std::wstring> files_;  // the latest
  std::uint64_t earlierFiles_ = 0;
  std::deque<Gap> gaps_;  // the latest, as the log has them if it can be written
  std::optional<cms::OpenGap> gap_;
  cms::RecordingStatus recorded_;
  cms::ConnectionStatus lastStatus_;
  bool delivered_ = false;
  bool written_ = false;

  mutable std::mutex mutex_;
  RecordSummary summary_;  // guarded by it
};

}  // namespace tools
