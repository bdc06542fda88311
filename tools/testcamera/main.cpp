// orvanta-camera: test cameras, real RTSP servers. A program of its own, so that GStreamer is
// loaded by those that play a camera and nobody else.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <thread>
#include <vector>

#include "tools/support/stop_signal.h"
#include "tools/testcamera/camera_arguments.h"
#include "tools/testcamera/certificate.h"
#include "tools/testcamera/http_camera.h"
#include "tools/testcamera/onvif/discovery_responder.h"
#include "tools/testcamera/onvif/onvif_camera.h"
#include "tools/testcamera/pipeline_text.h"
#include "tools/testcamera/rtsp_camera.h"

namespace testcamera {
namespace {

using tools::UsageError;

// A GLib main loop for a thread of its own, which starts when everything is in place.
class LoopThread {
 public:
  LoopThread() : context_(g_main_context_new()), loop_(g_main_loop_new(context_, FALSE)) {}
  ~LoopThread() {
    Stop();
    g_main_loop_unref(loop_);
    g_main_context_unref(context_);
  }
  LoopThread(const LoopThread&) = delete;
  LoopThread& operator=(const LoopThread&) = delete;

  GMainContext* Context() const { return context_; }
  void Start() {
    thread_ = std::thread([this] {
      g_main_context_push_thread_default(context_);
      g_main_loop_run(loop_);
      g_main_context_pop_thread_default(context_);
    });
  }
  void Stop() {
    if (thread_.joinable()) {
      // From inside the loop, so that a loop that has not begun yet ends as well.
      g_main_context_invoke(
          context_,
          [](gpointer loop) -> gboolean {
            g_main_loop_quit(static_cast<GMainLoop*>(loop));
            return G_SOURCE_REMOVE;
          },
          loop_);
      thread_.join();
    }
  }

 private:
  GMainContext* context_;
  GMainLoop* loop_;
  std::thread thread_;
};

void ParseSize(const std::string& text, CameraOptions* camera) {
  char rest = 0;
  if (std::sscanf(text.c_str(), "%dx%d%c", &camera->width, &camera->height, &rest) != 2 ||
      camera->width < 32 || camera->height < 32 || camera->width > 7680 || camera->height > 4320 ||
      camera->width % 2 != 0 || camera->height % 2 != 0) {
    throw UsageError("--size", "WIDTHxHEIGHT in even numbers from 32x32 on, not " + text);
  }
}

void Check(CameraArguments& arguments) {
  CameraOptions& camera = arguments.camera;
  for (const std::int64_t every : {arguments.onvif.motionEvery, arguments.onvif.inputEvery}) {
    if (every != 0 && every <= arguments.onvif.motionLength) {
      throw UsageError("--motion-length", "a motion or an input ends before the next one begins");
    }
  }
  ParseSize(arguments.size, &camera);
  if (!arguments.transports.empty()) {
    const auto offered = [&](const char* name) {
      return std::ranges::count(arguments.transports, name) > 0;
    };
    camera.udp = offered("udp");
    camera.tcp = offered("tcp");
    camera.multicast = offered("multicast");
  }
  if (!IsPattern(camera.pattern)) {
    throw UsageError("--pattern", "GStreamer's videotestsrc knows no " + camera.pattern);
  }
  if (camera.ptz && !camera.file.empty()) {
    throw UsageError("--ptz", "a file's pictures are sent as they are");
  }
  if (!camera.path.starts_with('/')) {
    camera.path.insert(0, "/");
  }
  if (camera.codec == VideoCodec::kMjpeg && camera.file.empty() &&
      (camera.width > 2040 || camera.height > 2040)) {
    throw UsageError("--size", "MJPEG over RTP ends at 2040x2040");
  }
  if (g_hostname_is_ip_address(camera.bind.c_str()) == FALSE) {
    throw UsageError("--bind", camera.bind + " is no IPv4 or IPv6 address");
  }
  camera.tls = camera.tls || !camera.certificate.empty();
  if (camera.bind.find(':') != std::string::npos && arguments.onvifPort &&
      arguments.onvif.discovery) {
    throw UsageError("--onvif", "discovery is IPv4's, and --bind is not: add --no-discovery");
  }
  if (camera.codec == VideoCodec::kH265 && arguments.onvifPort && !arguments.onvif.media2) {
    throw UsageError("--onvif", "the first version of its media service knows no H.265: --media2");
  }
  const int highest =
      std::max<int>({camera.port, arguments.httpPort.value_or(0), arguments.onvifPort.value_or(0)});
  if (highest + arguments.count - 1 > std::numeric_limits<std::uint16_t>::max()) {
    throw UsageError("--count", "more cameras than ports");
  }
}

void Serve(CameraArguments& arguments) {
  gst_init(nullptr, nullptr);
  Check(arguments);
  std::vector<std::unique_ptr<RtspCamera>> cameras;
  std::vector<std::unique_ptr<HttpCamera>> httpCameras;
  std::vector<std::unique_ptr<OnvifCamera>> onvifCameras;
  std::unique_ptr<DiscoveryResponder> responder;
  Certificate certificate;
  if (arguments.camera.tls || arguments.onvif.tls) {
    certificate = LoadCertificate(arguments.camera.certificate, arguments.camera.bind);
  }
  LoopThread loop;
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (int i = 0; i < arguments.count; ++i) {
    const auto port = [i](std::uint16_t first) {
      return static_cast<std::uint16_t>(first == 0 ? 0 : first + i);
    };
    CameraOptions camera = arguments.camera;
    camera.port = port(camera.port);
    cameras.push_back(std::make_unique<RtspCamera>(camera, certificate.tls.get(), loop.Context()));
    list.push_back({{"url", cameras.back()->Url()}, {"http_url", nullptr}, {"onvif_url", nullptr}});
    if (arguments.httpPort) {
      camera.httpPort = port(*arguments.httpPort);
      httpCameras.push_back(std::make_unique<HttpCamera>(camera, loop.Context()));
      list.back()["http_url"] = httpCameras.back()->Url();
    }
    if (arguments.onvifPort) {
      OnvifOptions onvif = arguments.onvif;
      onvif.port = port(*arguments.onvifPort);
      onvifCameras.push_back(std::make_unique<OnvifCamera>(
          camera, onvif, *cameras.back(), arguments.onvif.tls ? certificate.tls.get() : nullptr,
          loop.Context(), i));
      list.back()["onvif_url"] = onvifCameras.back()->Url();
    }
  }
  if (arguments.onvifPort && arguments.onvif.discovery) {
    responder =
        std::make_unique<DiscoveryResponder>(arguments.camera.bind, onvifCameras, loop.Context());
  }
  loop.Start();
  if (arguments.json) {
    nlohmann::ordered_json object{{"cameras", list}};
    if (!certificate.fingerprint.empty()) {
      object["certificate_sha256"] = certificate.fingerprint;
    }
    std::printf("%s\n", object.dump().c_str());
  } else {
    if (!certificate.fingerprint.empty()) {
      std::printf("certificate SHA-256 %s\n", certificate.fingerprint.c_str());
    }
    for (const auto& each : list) {
      std::printf("%s ", each["url"].get<std::string>().c_str());
      for (const char* other : {"http_url", "onvif_url"}) {
        if (each[other].is_string()) {
          std::printf("%s ", each[other].get<std::string>().c_str());
        }
      }
      std::printf("ready\n");
    }
  }
  std::fflush(stdout);
  tools::WaitForStop();
  loop.Stop();
}

}  // namespace
}  // namespace testcamera

int main(int argc, char** argv) {
  // `orvanta camera` starts it by that name, which its messages go by then.
  tools::CommandLine line(testcamera::kAbout, std::filesystem::path(argv[0]).filename(),
                          "orvanta-camera " ORVANTA_VERSION);
  testcamera::CameraArguments arguments;
  const tools::Command root = line.Root();
  testcamera::AddCameraOptions(root, arguments);
  root.Run([&arguments] { testcamera::Serve(arguments); });
  tools::CatchStopSignals();
  return line.Run(argc, argv);
}
