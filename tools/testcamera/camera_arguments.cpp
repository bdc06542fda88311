#include "tools/testcamera/camera_arguments.h"

#include <cstdlib>
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

const Choices<AuthScheme> kSchemes = {{"none", AuthScheme::kNone},
                                      {"basic", AuthScheme::kBasic},
                                      {"digest", AuthScheme::kDigest},
                                      {"digest-qop", AuthScheme::kDigestQop},
                                      {"digest-sha256", AuthScheme::kDigestSha256},
                                      {"all", AuthScheme::kAll}};

void AddOnvifOptions(Command command, CameraArguments& arguments) {
  OnvifOptions& onvif = arguments.onvif;
  const Option port = command
                          .AddOption("--onvif", arguments.onvifPort,
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
  command.AddOption("--onvif-clock", onvif.clockOffset, "Seconds that its clock is ahead")
      .Needs(port)
      .InRange(-1'000'000'000, 1'000'000'000);
  command.AddOption("--onvif-zone", onvif.timeZone, "Its time zone, as in the variable TZ")
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
  command.AddFlag("--media2", onvif.media2, "The second version of the media service too")
      .Needs(port);
  command.AddFlag("--onvif-tls", onvif.tls, "HTTPS, with the certificate of RTSPS").Needs(port);
  AddChoice(command, "--onvif-login", onvif.login, kSchemes,
            "Ask for HTTP credentials beside the signature of a request [none]");
  command
      .AddFlag("--ptz", arguments.camera.ptz,
               "Can be moved: sends a part of a test picture that is larger")
      .Needs(port);
  const auto addSeconds = [&](const char* name, std::int64_t& milliseconds,
                              const std::string& help) {
    command
        .AddParsed(
            name,
            [name, &milliseconds](const std::string& text) {
              char* end = nullptr;
              const double seconds = std::strtod(text.c_str(), &end);
              if (end == text.c_str() || *end != '\0' || !(seconds >= 0.1 && seconds <= 86400)) {
                throw UsageError(name, text + " is no time of 0.1 to 86400 seconds");
              }
              milliseconds = static_cast<std::int64_t>(seconds * 1000);
            },
            help)
        .TypeName("S")
        .Needs(port);
  };
  addSeconds("--motion-every", onvif.motionEvery, "See a motion every so many seconds");
  addSeconds("--motion-length", onvif.motionLength, "that lasts so long, and so do inputs [2]");
  addSeconds("--input-every", onvif.inputEvery, "Close the digital input every so many seconds");
  command.AddOption("--longest-pull", onvif.longestPull, "Seconds that a pull for events may wait")
      .Needs(port)
      .ShowDefault()
      .InRange(1, 3600);
  command
      .AddOption("--max-subscriptions", onvif.maxSubscriptions, "Subscriptions to events at a time")
      .Needs(port)
      .ShowDefault()
      .InRange(0, 1000);
  command.AddFlag("!--no-discovery", onvif.discovery, "Answer no WS-Discovery probe").Needs(port);
}

}  // namespace

void AddCameraOptions(Command command, CameraArguments& arguments) {
  CameraOptions& camera = arguments.camera;
  command.AddOption("--port", camera.port, "RTSP port; 0 takes any").ShowDefault().Port();
  command.AddOption("--bind", camera.bind, "Address to listen on, IPv4 or IPv6").ShowDefault();
  command
      .AddOption("--http", arguments.httpPort,
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
                     "Play this file's H.264, H.265, MPEG-4 or JPEG video for ever, as it is")
          .ExistingFile();
  command.AddOption("--pattern", camera.pattern, "Picture: smpte, ball, snow, black ...")
      .ShowDefault()
      .Excludes(file);
  AddChoice(command, "--codec", camera.codec,
            {{"h264", VideoCodec::kH264},
             {"h265", VideoCodec::kH265},
             {"mjpeg", VideoCodec::kMjpeg},
             {"mpeg4", VideoCodec::kMpeg4}},
            "Video codec of the pattern [h264]");
  AddChoice(command, "--profile", camera.profile,
            {{"baseline", H264Profile::kBaseline}, {"high", H264Profile::kHigh}},
            "H.264 profile [baseline]");
  command.AddOption("--size", arguments.size, "WIDTHxHEIGHT").ShowDefault();
  command.AddOption("--fps", camera.fps, "Pictures a second").ShowDefault().InRange(1, 120);
  command.AddOption("--gop", camera.gop, "Pictures from key frame to key frame")
      .ShowDefault()
      .InRange(1, 10000);
  command
      .AddOption("--slices", camera.slices, "Slices of each H.264 or H.265 picture of the pattern")
      .ShowDefault()
      .InRange(1, 16);
  command.AddOption("--bitrate", camera.bitrate, "Video kbit/s; by size and rate when not given")
      .InRange(16, 200000);
  AddChoice(command, "--audio", camera.audio,
            {{"none", AudioCodec::kNone},
             {"pcmu", AudioCodec::kPcmu},
             {"pcma", AudioCodec::kPcma},
             {"l16", AudioCodec::kL16},
             {"aac", AudioCodec::kAac},
             {"latm", AudioCodec::kLatm},
             {"g726", AudioCodec::kG726}},
            "Sound: a tone in this codec [none]");

  AddChoice(command, "--auth", camera.auth, kSchemes,
            "Ask for a password; all: Basic, and Digest with MD5 and SHA-256 [none]");
  command.AddOption("--user", camera.user, "Who may log in").ShowDefault();
  command.AddOption("--password", camera.password, "Its password").ShowDefault();

  command.AddFlag("--tls", camera.tls, "RTSPS, with a certificate signed by itself");
  command.AddOption(
      "--certificate", camera.certificate,
      "RTSPS with this file's certificate and key (PEM), which are made when the file "
      "is not there");
  command
      .AddOption("--transports", arguments.transports, "Those offered: udp,tcp,multicast [udp,tcp]")
      .List()
      .OneOf({"udp", "tcp", "multicast"});
  command.AddOption("--group", camera.multicastAddress, "Multicast address that is sent to")
      .ShowDefault()
      .IPv4();
  command.AddOption("--group-port", camera.multicastPort, "The first of its four ports")
      .ShowDefault()
      .InRange(1024, 65532);
  command.AddOption("--max-sessions", camera.maxSessions, "Refuse more sessions than that");
  command.AddOption("--session-timeout", camera.sessionTimeout, "Seconds")
      .ShowDefault()
      .InRange(1, 86400);
  AddChoice(command, "--delimiters", camera.delimiters, {{"on", true}, {"off", false}},
            "An access-unit delimiter before each H.264 or H.265 picture [off]");
  AddChoice(command, "--sei", camera.messages, {{"on", true}, {"off", false}},
            "An SEI message before each H.264 or H.265 picture [off]");
  command
      .AddOption("--key-size", camera.keyPictureSize,
                 "Fill H.264 and H.265 key pictures up to so many bytes")
      .InRange(0, 64'000'000);
  AddChoice(command, "--parameter-sets", camera.parameterSets,
            {{"both", ParameterSets::kBoth},
             {"sdp", ParameterSets::kSdp},
             {"inband", ParameterSets::kInband}},
            "Where H.264 and H.265 parameter sets are sent; inband also for MPEG-4 [both]");
  AddChoice(command, "--packets", camera.packets,
            {{"fu", PacketStyle::kFu}, {"stap", PacketStyle::kStap}},
            "Small H.264 and H.265 units alone or several in a packet [fu]");
  command.AddOption("--mtu", camera.mtu, "Largest RTP packet in bytes")
      .ShowDefault()
      .InRange(200, 65000);
  command.AddOption("--drop-percent", camera.dropPercent, "Lose that part of the RTP packets")
      .InRange(0.0, 100.0);
  AddOnvifOptions(command, arguments);
  command.AddFlag("--json", arguments.json, "Print the URLs as one JSON object");
}

}  // namespace testcamera
