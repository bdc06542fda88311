// orvanta talk: sends sound to a camera's loudspeaker, from a microphone or a file.
#include <samplerate.h>
#include <sndfile.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <vector>

#include "cms/exports/audio_exports.h"
#include "cms/exports/audio_player_exports.h"
#include "cms/exports/net_exports.h"
#include "cms/streaming/rtsp_client.h"
#include "tools/commands/command.h"
#include "tools/support/camera_security.h"
#include "tools/support/camera_url.h"
#include "tools/support/stop_signal.h"
#include "tools/support/transport_words.h"

namespace tools {
namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::milliseconds kBlock{20};

struct TalkArguments {
  std::string url;
  std::string file;
  std::string user;
  std::string password;
  std::string transport = "udp";
  SecurityArguments security;
  std::string device;
  double seconds = 0;
  bool json = false;
};

// Counts what a microphone's thread sends.
class TalkClient final : public CMSRTSPClient {
 public:
  ~TalkClient() override {
    OnStopAudioRecorder();
    CloseStream();
  }
  int SendAudioData(unsigned char* data, int length) override {
    const int taken = CMSRTSPClient::SendAudioData(data, length);
    sent_.fetch_add(static_cast<std::uint64_t>(taken));
    lost_.fetch_add(static_cast<std::uint64_t>(length - taken));
    return taken;
  }
  std::uint64_t Sent() const { return sent_.load(); }  // bytes
  std::uint64_t Lost() const { return lost_.load(); }

 private:
  std::atomic<std::uint64_t> sent_{0};
  std::atomic<std::uint64_t> lost_{0};
};

// The whole file as mono samples at the rate, whatever it was.
std::vector<std::int16_t> ReadVoice(const std::string& path, std::uint32_t rate) {
  SF_INFO info{};
  SNDFILE* const file = sf_open(path.c_str(), SFM_READ, &info);
  if (file == nullptr) {
    throw std::runtime_error(path + ": " + sf_strerror(nullptr));
  }
  constexpr sf_count_t kLongest = sf_count_t{384000} * 3600;
  if (info.frames > kLongest) {
    sf_close(file);
    throw std::runtime_error(path + ": longer than an hour");
  }
  const auto channels = static_cast<std::size_t>(info.channels);
  std::vector<float> all(static_cast<std::size_t>(info.frames) * channels);
  const sf_count_t frames = sf_readf_float(file, all.data(), info.frames);
  sf_close(file);
  std::vector<float> mono(static_cast<std::size_t>(std::max<sf_count_t>(frames, 0)));
  for (std::size_t i = 0; i < mono.size(); ++i) {
    for (std::size_t c = 0; c < channels; ++c) {
      mono[i] += all[i * channels + c] / static_cast<float>(channels);
    }
  }
  const double ratio = static_cast<double>(rate) / info.samplerate;
  std::vector<float> resampled(
      static_cast<std::size_t>(std::ceil(static_cast<double>(mono.size()) * ratio)) + 1);
  SRC_DATA job{};
  job.data_in = mono.data();
  job.input_frames = static_cast<long>(mono.size());
  job.data_out = resampled.data();
  job.output_frames = static_cast<long>(resampled.size());
  job.src_ratio = ratio;
  if (ratio == 1.0) {
    resampled = mono;
  } else if (const int error = src_simple(&job, SRC_SINC_MEDIUM_QUALITY, 1); error != 0) {
    throw std::runtime_error(path + ": " + src_strerror(error));
  } else {
    resampled.resize(static_cast<std::size_t>(job.output_frames_gen));
  }
  std::vector<std::int16_t> samples(resampled.size());
  src_float_to_short_array(resampled.data(), samples.data(), static_cast<int>(samples.size()));
  return samples;
}

std::vector<unsigned char> EncodeVoice(const std::vector<std::int16_t>& samples,
                                       const tCMSAudioPlayerConfig& format) {
  const auto count = static_cast<int>(samples.size());
  std::vector<unsigned char> bytes(samples.size());
  if (format.codecId == cms::CMS_CODEC_PCM_MULAW) {
    g711_uEncoder(samples.data(), count, bytes.data(), count);
  } else if (format.codecId == cms::CMS_CODEC_PCM_ALAW) {
    g711_aEncoder(samples.data(), count, bytes.data(), count);
  } else {
    bytes.clear();
    for (const std::int16_t sample : samples) {
      for (std::uint32_t c = 0; c < format.channels; ++c) {
        bytes.push_back(static_cast<unsigned char>(sample >> 8));
        bytes.push_back(static_cast<unsigned char>(sample & 0xFF));
      }
    }
  }
  return bytes;
}

int MicrophoneNumber(const std::string& name) {
  cms::CMSAudioDeviceInfo info;
  for (unsigned i = 0; GetAudioDeviceInfoByAudioType(cms::kCMSAudioInput, i, &info) != 0; ++i) {
    if (name == info.name) {
      return static_cast<int>(i);
    }
  }
  throw std::runtime_error("there is no microphone \"" + name +
                           "\" (orvanta audio devices lists what there is)");
}

void Open(TalkClient& client, const TalkArguments& arguments) {
  const cms::CameraUrl url =
      ReadCameraUrl(arguments.url, {"rtsp", "rtsps"}, "rtsp[s]://[user:password@]host[:port]/path");
  cms::stRTSPClientConfig config;
  config.path = url.plain;
  config.user = url.user.empty() ? arguments.user : url.user;
  config.password = url.user.empty() ? arguments.password : url.password;
  config.transport = TransportOf(arguments.transport);
  SecurityOf(arguments.security, 0, 1).ApplyTo(&config);
  config.talkBack = true;
  client.AllocChannelData(1);
  if (client.SetConfig(&config) == 0 || client.OpenStream() == 0 || client.Play() == 0) {
    const cms::ConnectionStatus status = client.GetConnectionStatus();
    throw std::runtime_error(url.plain + ": " + cms::ConnectionFaultName(status.fault) + ": " +
                             status.detail);
  }
}

void ShowProgress(double seconds) {
  if (isatty(STDERR_FILENO) != 0) {
    std::fprintf(stderr, "\r%.0f s", seconds);
  }
}

// Sends the file's sound as fast as it is heard.
void SendFile(TalkClient& client, std::vector<unsigned char> bytes, double bytesPerSecond,
              double seconds) {
  if (seconds > 0) {
    bytes.resize(std::min(bytes.size(), static_cast<std::size_t>(seconds * bytesPerSecond)));
  }
  const auto block =
      static_cast<std::size_t>(bytesPerSecond * std::chrono::duration<double>(kBlock).count());
  const auto start = Clock::now();
  for (std::size_t at = 0, number = 1; at < bytes.size(); at += block, ++number) {
    const std::size_t length = std::min(block, bytes.size() - at);
    client.SendAudioData(bytes.data() + at, static_cast<int>(length));
    const auto next = start + kBlock * number;
    ShowProgress(static_cast<double>(at) / bytesPerSecond);
    if (WaitForStop(
            std::max(std::chrono::duration_cast<std::chrono::milliseconds>(next - Clock::now()),
                     std::chrono::milliseconds(0)))) {
      break;
    }
  }
}

int Talk(const TalkArguments& arguments) {
  TalkClient client;
  Open(client, arguments);
  tCMSAudioPlayerConfig format;
  if (client.GetTalkFormat(&format) == 0) {
    throw std::runtime_error("the camera offers no audio backchannel in PCMU, PCMA or L16");
  }
  const double bytesPerSecond = static_cast<double>(format.sampleRate) * format.channels *
                                (format.codecId == cms::CMS_CODEC_PCM_S16BE ? 2 : 1);
  if (!arguments.file.empty()) {
    SendFile(client, EncodeVoice(ReadVoice(arguments.file, format.sampleRate), format),
             bytesPerSecond, arguments.seconds);
  } else {
    format.device = arguments.device.empty() ? -1 : MicrophoneNumber(arguments.device);
    if (client.OnStartAudioRecorder(format) == 0) {
      throw std::runtime_error("the microphone \"" +
                               (arguments.device.empty() ? "default" : arguments.device) +
                               "\" cannot be opened (orvanta audio devices lists what there is)");
    }
    const auto start = Clock::now();
    for (std::chrono::duration<double> elapsed{}; !WaitForStop(std::chrono::milliseconds(200));) {
      elapsed = Clock::now() - start;
      ShowProgress(elapsed.count());
      if (arguments.seconds > 0 && elapsed.count() >= arguments.seconds) {
        break;
      }
    }
    client.OnStopAudioRecorder();
  }
  const double seconds = static_cast<double>(client.Sent()) / bytesPerSecond;
  if (arguments.json) {
    std::printf("%s\n", nlohmann::ordered_json{{"bytes", client.Sent()},
                                               {"seconds", std::round(seconds * 100) / 100},
                                               {"not_sent", client.Lost()}}
                            .dump(2)
                            .c_str());
  } else {
    std::printf("%s%.2f s of sound sent\n", isatty(STDERR_FILENO) != 0 ? "\r" : "", seconds);
  }
  if (client.Sent() == 0 || client.Lost() > 0) {
    std::fprintf(stderr, "orvanta talk: %llu bytes were not sent\n",
                 static_cast<unsigned long long>(client.Lost()));
    return 1;
  }
  return 0;
}

}  // namespace

void AddTalkCommand(Command app, CommandResult& result) {
  auto arguments = std::make_shared<TalkArguments>();
  const Command talk = app.Add("talk", "Speak through a camera's loudspeaker");
  talk.AddOption("URL", arguments->url, "rtsp[s]://[user:password@]host[:port]/path").Required();
  talk.AddOption("FILE", arguments->file, "sound file; without one the microphone");
  talk.AddOption("--user", arguments->user, "user name, when the URL carries none");
  talk.AddOption("--password", arguments->password, "password, when the URL carries none");
  talk.AddOption("--transport", arguments->transport, "udp, tcp, http or multicast")
      .OneOf(TransportWords())
      .ShowDefault();
  AddSecurityOptions(talk, arguments->security);
  talk.AddOption("--device", arguments->device, "microphone, see orvanta audio devices");
  talk.AddOption("--seconds", arguments->seconds, "end after so many seconds").Positive();
  talk.AddFlag("--json", arguments->json, "print one JSON object at the end");
  talk.Run([arguments, &result] {
    struct Threads {
      ~Threads() { StopEachClientNBManager(); }
    } threads;
    result.status = Talk(*arguments);
  });
}

}  // namespace tools
