#include "tools/serve/site_recorder.h"

#include <cstring>
#include <stdexcept>

#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"
#include "tools/recording_folders.h"

namespace tools {
namespace {

constexpr unsigned kChannel = 0;
constexpr int kWriteOutMs = 30'000;  // for a slow disk
constexpr std::size_t kDayLength = 8;

std::wstring Today() {
  return cms::RecordingStamp(cms::WallSeconds()).substr(0, kDayLength);
}

}  // namespace

SiteRecorder::SiteRecorder(LiveSite& live, const LiveOptions& options, int number)
    : client_(live.Client()), number_(number), day_(Today()) {
  stRecordParam param;
  PathOfToday().copy(param.path, std::size(param.path) - 1);
  client_.SetRecordParam(param);
  if (const auto url = cms::ParseCameraUrl(options.url)) {
    client_.SetRecordDevice(cms::WideFromUtf8(url->host).c_str(),
                            (L"Site " + std::to_wstring(number)).c_str(), url->port);
  }
}

std::wstring SiteRecorder::PathOfToday() const {
  return std::wstring(kRecordings) + L"\\" + day_ + L"\\Rec_Site" + std::to_wstring(number_) + L"_";
}

void SiteRecorder::Start() {
  FollowDay();
  if (!on_ && client_.StartRecord(kChannel, kRecordInstant) == 0) {
    throw std::runtime_error("cannot record into " + cms::NativePath(PathOfToday()) +
                             "*: " + std::strerror(client_.GetRecordingStatus().lastError));
  }
  on_ = true;
}

void SiteRecorder::Stop() {
  if (on_) {
    client_.StopRecord(kChannel, kRecordInstant);
    client_.WaitRecorded(kWriteOutMs);
    on_ = false;
  }
}

void SiteRecorder::FollowDay() {
  if (const std::wstring day = Today(); day != day_) {
    day_ = day;
    client_.ChangeRecordPath(PathOfToday().c_str());
  }
}

}  // namespace tools
