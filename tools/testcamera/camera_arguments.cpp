#include "tools/testcamera/camera_arguments.h"

#include <utility>

namespace testcamera {
namespace {

using tools::Command;
using tools::Option;
using tools::UsageError;

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

void AddOnvifOptions(Command command, CameraArguments& arguments) {
  OnvifOptions& onvif = arguments.onvif;
  const Option port = command
                          .AddOption("--onvif", arguments.onvif_port,
                                     "Port for ONVIF and the parameter CGI, which ask for --user "
                                     "and --password; 0 takes any")
                          .Port();
  command
      .AddParsed(
          "--onvif-style",
          [&onvif](const std::string& word) {
            if (!AddOnvifStyle(word, &onvif.style)) {
              throw UsageError("--onvif-style", word + " is none of " + OnvifStyleWords());
            }
          },
          "How it answers: " + OnvifStyleWords())
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

void AddCameraOptions(Command command, CameraArguments& arguments) {
  CameraOptions& camera = arguments.camera;
  command.AddOption("--port", camera.port, "RTSP port; 0 takes any").ShowDefault().Port();
  command.AddOption("--bind", camera.bind, "Address to listen on").ShowDefault().IPv4();
  command
      .AddOption("--http", arguments.http_port,
                 std::string("HTTP port for the pictures as multipart JPEG at ") + kHttpPath +
                     "; 0 takes any")
      .Port();
  command.AddOption("--path", camera.path, "Path of the stream").ShowDefault();
  command.AddOption("--count", arguments.count, "So many cameras, at ports one after the other")
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
  command.AddOption("--size", arguments.size, "WIDTHxHEIGHT").ShowDefault();
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

  command.AddOption("--transports", arguments.transports, "Those offered: udp,tcp")
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
  AddOnvifOptions(command, arguments);
  command.AddFlag("--json", arguments.json, "Print the URLs as one JSON object");
}

}  // namespace testcamera
