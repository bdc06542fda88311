// Records cameras until Ctrl-C, and says what it does: a client application of the library in
// little.
//
//   recorder FOLDER URL...
//
// The recordings go into FOLDER/recordings/<day>, their databases beside them; `orvanta db --data
// FOLDER` and `orvanta search --data FOLDER` read them.
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cms/cms.h"
#include "cms/exports/net_exports.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/wide_text.h"

namespace {

volatile std::sig_atomic_t stop = 0;

class Site final : public CMSRTSPClient {
 public:
  Site(const std::string& url, int number) : number_(number) {
    AllocChannelData(1);
    cms::stRTSPClientConfig config;
    config.path = url;
    config.transport = cms::kRtspTransportInterleaved;
    configured_ = SetConfig(&config) != 0;
    SetRecordDevice("", "Camera " + std::to_string(number), 554);
    stRecordParam param;
    param.SetPath(path_);
    SetRecordParam(param);
  }
  ~Site() override { CloseStream(); }

  bool Start() {
    // A schedule's state: recording begins at once, and again by itself after trouble with the
    // disk.
    TurnOnRecordingState(0, cms::kRecordSchedule);
    return configured_ && KeepOpen() != 0;
  }

  // Once a second: a new folder for each day, and a line for people.
  void Look() {
    if (const std::string path = Path(); path != path_) {
      path_ = path;
      ChangeRecordPath(path);
    }
    const cms::RecordingStatus status = GetRecordingStatus();
    const auto gap = GetRecordingGap();
    std::printf("camera %d: %llu frames, %.1f MB%s%s\n", number_,
                static_cast<unsigned long long>(status.frames),
                static_cast<double>(status.bytes) / 1e6, gap ? ", nothing recorded: " : "",
                gap ? cms::GapCauseName(gap->cause).c_str() : "");
    std::fflush(stdout);
  }

 private:
  // Below FOLDER/recordings.
  std::string Path() const {
    const std::string day = cms::Utf8FromWide(cms::RecordingStamp(cms::WallSeconds()).substr(0, 8));
    return day + "/Rec_Site" + std::to_string(number_) + "_";
  }

  const int number_;
  bool configured_ = false;
  std::string path_ = Path();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: recorder FOLDER rtsp://...\n");
    return 2;
  }
  cms::SetDataRoot(argv[1]);
  std::signal(SIGINT, [](int) { stop = 1; });
  std::signal(SIGTERM, [](int) { stop = 1; });

  int status = 0;
  {
    std::vector<std::unique_ptr<Site>> sites;
    for (int i = 2; i < argc; ++i) {
      sites.push_back(std::make_unique<Site>(argv[i], i - 1));
      if (!sites.back()->Start()) {
        std::fprintf(stderr, "recorder: %s\n", sites.back()->GetConnectionStatus().detail.c_str());
        status = 1;
      }
    }
    while (stop == 0 && status == 0) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
      for (const auto& site : sites) {
        site->Look();
      }
    }
  }  // destroying a client writes what it has, closes its files and notes the stop
  StopEachClientNBManager();
  return status;
}
