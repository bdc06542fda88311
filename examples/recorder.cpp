// Records cameras until Ctrl-C, and says what it does: a client application of the library in
// little.
//
//   recorder FOLDER URL...
//
// The recordings go into FOLDER/recordings/<day>, their databases beside them; `orvanta db --data
// FOLDER` and `orvanta search --data FOLDER` read them.
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "cms/cms.h"
#include "cms/exports/net_exports.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/clock.h"

namespace {

volatile std::sig_atomic_t stop = 0;

class Site final : public CMSRTSPClient {
 public:
  Site(const std::string& url, int number) : number_(number) {
    AllocChannelData(1);
    stRTSPClientConfig config;
    config.path = url;
    config.transport = kRtspTransportInterleaved;
    configured_ = SetConfig(&config) != 0;
    SetRecordDevice(nullptr, (L"Camera " + std::to_wstring(number)).c_str(), 554);
    stRecordParam param;
    Path().copy(param.path, std::size(param.path) - 1);
    SetRecordParam(param);
  }
  ~Site() override { CloseStream(); }

  bool Start() {
    // A schedule's state: recording begins at once, and again by itself after trouble with the
    // disk.
    TurnOnRecordingState(0, kRecordSchedule);
    return configured_ && KeepOpen() != 0;
  }

  // Once a second: a new folder for each day, and a line for people.
  void Look() {
    if (const std::wstring path = Path(); path != path_) {
      path_ = path;
      ChangeRecordPath(path.c_str());
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
  std::wstring Path() const {
    const std::wstring day = cms::RecordingStamp(cms::WallSeconds()).substr(0, 8);
    return L"..\\recordings\\" + day + L"\\Rec_Site" + std::to_wstring(number_) + L"_";
  }

  const int number_;
  bool configured_ = false;
  std::wstring path_ = Path();
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    std::fprintf(stderr, "usage: recorder FOLDER rtsp://...\n");
    return 2;
  }
  // The databases lie beside the folder that the process works in.
  std::error_code error;
  const std::filesystem::path work = std::filesystem::path(argv[1]) / "recordings";
  std::filesystem::create_directories(work, error);
  std::filesystem::current_path(work, error);
  if (error) {
    std::fprintf(stderr, "recorder: %s: %s\n", work.c_str(), error.message().c_str());
    return 1;
  }
  CRecFolderDBWriter().WriterRecFolderDB(0, L"..\\recordings");  // where searches look
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
