#include "tools/data/day_folder.h"

#include <stdexcept>

#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/wide_text.h"
#include "tools/data/recording_folders.h"

namespace tools {
namespace {

constexpr std::size_t kDayLength = 8;

std::wstring Today() {
  return cms::RecordingStamp(cms::WallSeconds()).substr(0, kDayLength);
}

}  // namespace

DayFolder::DayFolder(LiveSite& live, const LiveOptions& options, int fileSizeMiB)
    : client_(live.Client()), number_(options.number + 1), day_(Today()) {
  stRecordParam param;
  Path().copy(param.path, std::size(param.path) - 1);
  param.fileSizeMiB = fileSizeMiB;
  client_.SetRecordParam(param);
  if (const auto url = cms::ParseCameraUrl(options.url)) {
    const std::wstring name = options.name.empty() ? L"Site " + std::to_wstring(number_)
                                                   : cms::WideFromUtf8(options.name);
    client_.SetRecordDevice(cms::WideFromUtf8(url->host).c_str(), name.c_str(), url->port);
  }
}

std::wstring DayFolder::Path() const {
  return std::wstring(kRecordings) + L"\\" + day_ + L"\\Rec_Site" + std::to_wstring(number_) + L"_";
}

void DayFolder::Follow() {
  if (const std::wstring day = Today(); day != day_) {
    day_ = day;
    client_.ChangeRecordPath(Path().c_str());
  }
}

void DayFolder::Refuse() const {
  throw std::runtime_error("cannot record into " + client_.GetStartRecordError());
}

}  // namespace tools
