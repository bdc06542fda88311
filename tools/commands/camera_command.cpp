// `orvanta camera`: test cameras, real RTSP servers.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tools/commands/command.h"
#include "tools/support/stop_signal.h"
#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/http_camera.h"
#include "tools/testcamera/onvif/discovery_responder.h"
#include "tools/testcamera/onvif/onvif_camera.h"
#include "tools/testcamera/pipeline_text.h"
#include "tools/testcamera/rtsp_camera.h"

namespace tools {
namespace {

using testcamera::CameraOptions;

struct Arguments {
  CameraOptions camera;
  int count = 1;
  std::string size = "640x360";
  std::vector<std::string> transports;
  std::optional<std::uint16_t> http_port;   // no HTTP without
  std::optional<std::uint16_t> onvif_port;  // no ONVIF without
  testcamera::OnvifOptions onvif;
  bool json = false;
};

template <typename Value>
using Choices = std::vector<std::pair<std::string, Value>>;

template <typename Value>
void AddChoice(Command app, const std::string& name, Value& value, const Choices<Value>& choices,
               const std::string& help) {
  std::string names;
  for (const auto& [text, each] : choices) {
    names += (names.empty() ? "" : "|") + text;
  }
  app.AddParsed(
         name,
         [=, &value](const std::string& given) {
           for (const auto& [text, each] : choices) {
             if (text == given) {
               value = each;
               return;
             }
           }
           throw UsageError(name, given + " is none of " + names);
         },
         help)
      .Text(names);
}

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

void Check(Arguments& arguments) {
  CameraOptions& camera = arguments.camera;
  ParseSize(arguments.size, &camera);
  if (!arguments.transports.empty()) {
    camera.udp = camera.tcp = false;
    for (const std::string& each : arguments.transports) {
      (each == "udp" ? camera.udp : camera.tcp) = true;
    }
  }
  if (!testcamera::IsPattern(camera.pattern)) {
    throw UsageError("--pattern", "GStreamer's videotestsrc knows no " + camera.pattern);
  }
  if (!camera.path.starts_with('/')) {
    camera.path.insert(0, "/");
  }
  if (camera.codec == testcamera::VideoCodec::kMjpeg && camera.file.empty() &&
      (camera.width > 2040 || camera.height > 2040)) {
    throw UsageError("--size", "MJPEG over RTP ends at 2040x2040");
  }
  const int highest = std::max<int>(
      {camera.port, arguments.http_port.value_or(0), arguments.onvif_port.value_or(0)});
  if (highest + arguments.count - 1 > std::numeric_limits<std::uint16_t>::max()) {
    throw UsageError("--count", "more cameras than ports");
  }
}

int Serve(Arguments& arguments) {
  gst_init(nullptr, nullptr);
  Check(arguments);
  std::vector<std::unique_ptr<testcamera::RtspCamera>> cameras;
  std::vector<std::unique_ptr<testcamera::HttpCamera>> http_cameras;
  std::vector<std::unique_ptr<testcamera::OnvifCamera>> onvif_cameras;
  std::unique_ptr<testcamera::DiscoveryResponder> responder;
  LoopThread loop;
  nlohmann::ordered_json list = nlohmann::ordered_json::array();
  for (int i = 0; i < arguments.count; ++i) {
    const auto port = [i](std::uint16_t first) {
      return static_cast<std::uint16_t>(first == 0 ? 0 : first + i);
    };
    CameraOptions camera = arguments.camera;
    camera.port = port(camera.port);
    cameras.push_back(std::make_unique<testcamera::RtspCamera>(camera, loop.Context()));
    list.push_back({{"url", cameras.back()->Url()}, {"http_url", nullptr}, {"onvif_url", nullptr}});
    if (arguments.http_port) {
      camera.http_port = port(*arguments.http_port);
      http_cameras.push_back(std::make_unique<testcamera::HttpCamera>(camera, loop.Context()));
      list.back()["http_url"] = http_cameras.back()->Url();
    }
    if (arguments.onvif_port) {
      testcamera::OnvifOptions onvif = arguments.onvif;
      onvif.port = port(*arguments.onvif_port);
      onvif_cameras.push_back(std::make_unique<testcamera::OnvifCamera>(
          camera, onvif, *cameras.back(), loop.Context(), i));
      list.back()["onvif_url"] = onvif_cameras.back()->Url();
    }
  }
  if (arguments.onvif_port && arguments.onvif.discovery) {
    responder = std::make_unique<testcamera::DiscoveryResponder>(arguments.camera.bind,
                                                                 onvif_cameras, loop.Context());
  }
  loop.Start();
  if (arguments.json) {
    std::printf("%s\n", nlohmann::ordered_json{{"cameras", list}}.dump().c_str());
  } else {
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
  WaitForStop();
  loop.Stop();
  return 0;
}

}  // namespace

namespace {

void AddOnvifOptions(Command command, Arguments& arguments) {
  testcamera::OnvifOptions& onvif = arguments.onvif;
  const Option port = command
                          .AddOption("--onvif", arguments.onvif_port,
                                     "Port for ONVIF and the parameter CGI, which ask for --user "
                                     "and --password; 0 takes any")
                          .Port();
  command
      .AddParsed(
          "--onvif-style",
          [&onvif](const std::string& word) {
            if (!testcamera::AddOnvifStyle(word, &onvif.style)) {
              throw UsageError("--onvif-style",
                               word + " is none of " + testcamera::OnvifStyleWords());
            }
          },
          "How it answers: " + testcamera::OnvifStyleWords())
      .List()
      .Needs(port);
  command.AddOption("--onvif-clock", onvif.clock_offset, "Seconds that its clock is ahead")
      .Needs(port)
      .InRange(-1'000'000'000, 1'000'000'000);
  command.AddOption("--onvif-zone", onvif.time_zone, "Its time zone, as in the variable TZ")
      .Needs(port)
      .ShowDefault();
  command
      .AddOption("--onvif-window", onvif.window, "Seconds that a request's created time may be off")
      .Needs(port)
      .ShowDefault()
      .InRange(1, 86400);
  command.AddOption("--streams", onvif.streams, "Streams that can be configured")
      .Needs(port)
      .ShowDefault()
      .InRange(3, 5);
  command.AddFlag("!--no-discovery", onvif.discovery, "Answer no WS-Discovery probe").Needs(port);
}

}  // namespace

void AddCameraCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<Arguments>();
  CameraOptions& camera = arguments->camera;
  const Command command = app.Add("camera", "Test cameras: real RTSP servers");
  using namespace testcamera;

  command.AddOption("--port", camera.port, "RTSP port; 0 takes any").ShowDefault().Port();
  command.AddOption("--bind", camera.bind, "Address to listen on").ShowDefault().IPv4();
  command
      .AddOption("--http", arguments->http_port,
                 std::string("HTTP port for the pictures as multipart JPEG at ") + kHttpPath +
                     "; 0 takes any")
      .Port();
  command.AddOption("--path", camera.path, "Path of the stream").ShowDefault();
  command.AddOption("--count", arguments->count, "So many cameras, at ports one after the other")
      .ShowDefault()
      .InRange(1, 1000);

  command.AddOption("--talk", camera.talk,
                    "Offer an audio backchannel in mu-law and write what is said to this file");

  const Option file =
      command
          .AddOption("--file", camera.file,
                     "Play this file's H.264, MPEG-4 or JPEG video for ever, as it is")
          .ExistingFile();
  command.AddOption("--pattern", camera.pattern, "Picture: smpte, ball, snow, black ...")
      .ShowDefault()
      .Excludes(file);
  AddChoice(
      command, "--codec", camera.codec,
      {{"h264", VideoCodec::kH264}, {"mjpeg", VideoCodec::kMjpeg}, {"mpeg4", VideoCodec::kMpeg4}},
      "Video codec of the pattern [h264]");
  AddChoice(command, "--profile", camera.profile,
            {{"baseline", H264Profile::kBaseline}, {"high", H264Profile::kHigh}},
            "H.264 profile [baseline]");
  command.AddOption("--size", arguments->size, "WIDTHxHEIGHT").ShowDefault();
  command.AddOption("--fps", camera.fps, "Pictures a second").ShowDefault().InRange(1, 120);
  command.AddOption("--gop", camera.gop, "Pictures from key frame to key frame")
      .ShowDefault()
      .InRange(1, 10000);
  command.AddOption("--bitrate", camera.bitrate, "Video kbit/s; by size and rate when not given")
      .InRange(16, 200000);
  AddChoice(command, "--audio", camera.audio,
            {{"none", AudioCodec::kNone},
             {"pcmu", AudioCodec::kPcmu},
             {"pcma", AudioCodec::kPcma},
             {"l16", AudioCodec::kL16}},
            "Sound: a tone in this codec [none]");

  AddChoice(
      command, "--auth", camera.auth,
      {{"none", AuthScheme::kNone}, {"basic", AuthScheme::kBasic}, {"digest", AuthScheme::kDigest}},
      "Ask for a password [none]");
  command.AddOption("--user", camera.user, "Who may log in").ShowDefault();
  command.AddOption("--password", camera.password, "Its password").ShowDefault();

  command.AddOption("--transports", arguments->transports, "Those offered: udp,tcp")
      .List()
      .OneOf({"udp", "tcp"});
  command.AddOption("--max-sessions", camera.max_sessions, "Refuse more sessions than that");
  command.AddOption("--session-timeout", camera.session_timeout, "Seconds")
      .ShowDefault()
      .InRange(1, 86400);
  AddChoice(command, "--delimiters", camera.delimiters, {{"on", true}, {"off", false}},
            "An H.264 access-unit delimiter before each picture [off]");
  AddChoice(command, "--parameter-sets", camera.parameter_sets,
            {{"both", ParameterSets::kBoth},
             {"sdp", ParameterSets::kSdp},
             {"inband", ParameterSets::kInband}},
            "Where H.264 parameter sets are sent; inband also for MPEG-4 [both]");
  AddChoice(command, "--packets", camera.packets,
            {{"fu", PacketStyle::kFu}, {"stap", PacketStyle::kStap}},
            "Small H.264 units alone or several in a packet [fu]");
  command.AddOption("--mtu", camera.mtu, "Largest RTP packet in bytes")
      .ShowDefault()
      .InRange(200, 65000);
  command.AddOption("--drop-percent", camera.drop_percent, "Lose that part of the RTP packets")
      .InRange(0.0, 100.0);
  AddOnvifOptions(command, *arguments);
  command.AddFlag("--json", arguments->json, "Print the URLs as one JSON object");
  command.Run([arguments, &result] { result.status = Serve(*arguments); });
}

}  // namespace tools
