// orvanta audio: converts between the audio codecs of cameras and WAV files.
#include <sndfile.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "cms/exports/audio_player_exports.h"
#include "tools/commands/command.h"
#include "tools/support/audio_streams.h"
#include "tools/support/progress.h"
#include "tools/support/stop_signal.h"

namespace tools {
namespace {

struct AudioArguments {
  std::string in;
  std::string out;
  AudioStreamOptions stream;
  int rate = 8000;
  bool json = false;
};

struct Totals {
  std::uint64_t samples = 0;  // of each channel
  std::uint64_t bytesIn = 0;
  std::uint64_t bytesOut = 0;
};

class WaveFile {
 public:
  // Reads when the rate is 0, else writes 16-bit PCM.
  explicit WaveFile(const std::string& path, int rate = 0, int channels = 0) : path_(path) {
    info_.samplerate = rate;
    info_.channels = channels;
    info_.format = rate > 0 ? SF_FORMAT_WAV | SF_FORMAT_PCM_16 : 0;
    file_ = sf_open(path.c_str(), rate > 0 ? SFM_WRITE : SFM_READ, &info_);
    if (file_ == nullptr) {
      throw std::runtime_error(path + ": " + sf_strerror(nullptr));
    }
    if (rate == 0) {  // WAV files of floating point numbers, which span -1..1
      sf_command(file_, SFC_SET_SCALE_FLOAT_INT_READ, nullptr, SF_TRUE);
      sf_command(file_, SFC_SET_CLIPPING, nullptr, SF_TRUE);
    }
  }
  ~WaveFile() { sf_close(file_); }
  WaveFile(const WaveFile&) = delete;
  WaveFile& operator=(const WaveFile&) = delete;

  int Rate() const { return info_.samplerate; }
  int Channels() const { return info_.channels; }

  AudioSamples Read(std::size_t frames) {
    AudioSamples samples(frames * static_cast<std::size_t>(info_.channels));
    const sf_count_t count = sf_readf_short(file_, samples.data(), static_cast<sf_count_t>(frames));
    samples.resize(static_cast<std::size_t>(std::max<sf_count_t>(count, 0) * info_.channels));
    return samples;
  }

  void Write(const AudioSamples& samples) {
    const auto count = static_cast<sf_count_t>(samples.size());
    if (sf_write_short(file_, samples.data(), count) != count) {
      throw std::runtime_error(path_ + ": " + sf_strerror(file_));
    }
  }

 private:
  const std::string path_;
  SF_INFO info_{};
  SNDFILE* file_ = nullptr;
};

void ThrowIfStopped() {
  if (StopRequested()) {
    throw std::runtime_error("stopped before the end of the input");
  }
}

// Opening the output empties it.
void RequireTwoFiles(const AudioArguments& arguments) {
  std::error_code ignored;
  if (std::filesystem::equivalent(arguments.in, arguments.out, ignored)) {
    throw UsageError("OUT", "is the input file");
  }
}

std::uint64_t FileSize(const std::string& path) {
  std::error_code error;
  const auto size = std::filesystem::file_size(path, error);
  return error ? 0 : size;
}

Totals Decode(const AudioArguments& arguments) {
  RequireTwoFiles(arguments);
  const auto stream = MakeAudioDecodeStream(arguments.stream);
  std::ifstream in(arguments.in, std::ios::binary);
  std::vector<std::uint8_t> chunk(stream->ChunkSize());
  Totals totals;
  // A folder opens and cannot be read.
  if (!in || (in.peek() == EOF && in.bad())) {
    throw std::runtime_error(arguments.in + ": cannot be read");
  }
  in.clear();
  {
    Progress progress(FileSize(arguments.in));
    WaveFile out(arguments.out, arguments.rate, arguments.stream.channels);
    while (
        in.read(reinterpret_cast<char*>(chunk.data()), static_cast<std::streamsize>(chunk.size())),
        in.gcount() > 0) {
      ThrowIfStopped();
      const auto size = static_cast<std::size_t>(in.gcount());
      const AudioSamples samples = stream->Decode({chunk.data(), size});
      out.Write(samples);
      totals.bytesIn += size;
      totals.samples += samples.size() / static_cast<std::size_t>(arguments.stream.channels);
      progress.Show(totals.bytesIn);
    }
    if (in.bad()) {
      throw std::runtime_error(arguments.in + ": reading failed");
    }
  }
  totals.bytesOut = FileSize(arguments.out);
  return totals;
}

// Takes channels and rate from the WAV file.
Totals Encode(AudioArguments& arguments) {
  RequireTwoFiles(arguments);
  WaveFile in(arguments.in);
  arguments.stream.channels = in.Channels();
  arguments.rate = in.Rate();
  const auto stream = MakeAudioEncodeStream(arguments.stream);
  std::ofstream out(arguments.out, std::ios::binary);
  if (!out) {
    throw std::runtime_error(arguments.out + ": cannot be written");
  }
  Totals totals;
  totals.bytesIn = FileSize(arguments.in);
  Progress progress(totals.bytesIn);
  for (AudioSamples samples = in.Read(stream->ChunkSamples()); !samples.empty();
       samples = in.Read(stream->ChunkSamples())) {
    ThrowIfStopped();
    const std::vector<std::uint8_t> bytes = stream->Encode(samples);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    totals.bytesOut += bytes.size();
    totals.samples += samples.size() / static_cast<std::size_t>(arguments.stream.channels);
    progress.Show(totals.samples * static_cast<std::size_t>(arguments.stream.channels) * 2);
  }
  out.close();
  if (!out) {
    throw std::runtime_error(arguments.out + ": writing failed");
  }
  return totals;
}

void Report(const AudioArguments& arguments, const Totals& totals) {
  const double seconds = static_cast<double>(totals.samples) / arguments.rate;
  if (arguments.json) {
    const nlohmann::ordered_json report = {{"codec", arguments.stream.codec},
                                           {"channels", arguments.stream.channels},
                                           {"rate", arguments.rate},
                                           {"samples", totals.samples},
                                           {"seconds", seconds},
                                           {"bytes_in", totals.bytesIn},
                                           {"bytes_out", totals.bytesOut}};
    std::printf("%s\n", report.dump(2).c_str());
  } else {
    std::printf("%s: %s, %d Hz, %d channel%s, %.3f s, %llu bytes to %llu\n", arguments.out.c_str(),
                arguments.stream.codec.c_str(), arguments.rate, arguments.stream.channels,
                arguments.stream.channels == 1 ? "" : "s", seconds,
                static_cast<unsigned long long>(totals.bytesIn),
                static_cast<unsigned long long>(totals.bytesOut));
  }
}

void AddCommon(Command app, AudioArguments& arguments, const std::vector<std::string>& codecs) {
  std::string names;
  for (const std::string& each : codecs) {
    names += (names.empty() ? "" : "|") + each;
  }
  app.AddOption("--codec", arguments.stream.codec, "codec of the raw file")
      .Required()
      .Text(names + " REQUIRED")
      .OneOf(codecs);
  constexpr std::size_t kMaximumBlock = 1u << 20;
  app.AddOption("--block", arguments.stream.blockSize,
                "bytes of a block of ima (data only, usually 504) or ms (usually 256)")
      .InRange(std::size_t{1}, kMaximumBlock);
  app.AddFlag("--json", arguments.json, "print one JSON object at the end");
}

// What `--device` takes, outputs and inputs.
void ListDevices(bool json) {
  nlohmann::ordered_json all;
  for (const auto& [kind, name] :
       {std::pair{cms::kCMSAudioOutput, "outputs"}, {cms::kCMSAudioInput, "inputs"}}) {
    nlohmann::ordered_json& list = all[name] = nlohmann::ordered_json::array();
    cms::CMSAudioDeviceInfo device;
    for (unsigned i = 0; GetAudioDeviceInfoByAudioType(kind, i, &device) != 0; ++i) {
      list.push_back({{"name", device.name}, {"description", device.description}});
    }
  }
  if (json) {
    std::printf("%s\n", all.dump(2).c_str());
    return;
  }
  for (const auto& [name, list] : all.items()) {
    std::printf("%s:%s\n", name.c_str(), list.empty() ? " none" : "");
    for (const auto& device : list) {
      std::printf("  %-32s  %s\n", device["name"].get<std::string>().c_str(),
                  device["description"].get<std::string>().c_str());
    }
  }
}

}  // namespace

void AddAudioCommand(Command app, CommandResult& /*result*/) {
  auto arguments = std::make_shared<AudioArguments>();
  const Command audio = app.Add("audio", "Convert audio of cameras from and to WAV");
  audio.RequireCommand();

  const Command decode = audio.Add("decode", "Raw file of a codec to a WAV file");
  decode.AddOption("IN", arguments->in, "raw file").Required();
  decode.AddOption("OUT", arguments->out, "WAV file, 16-bit PCM").Required();
  AddCommon(decode, *arguments, DecodableAudioCodecs());
  constexpr int kMaximumRate = 384000;
  constexpr int kMaximumChannels = 8;
  decode.AddOption("--rate", arguments->rate, "samples a second")
      .InRange(1, kMaximumRate)
      .ShowDefault();
  decode.AddOption("--channels", arguments->stream.channels, "interleaved channels")
      .InRange(1, kMaximumChannels)
      .ShowDefault();
  decode
      .AddOption("--channel-mode", arguments->stream.channelMode,
                 "of ima: 0 both streams, 1 or 2 only one of them")
      .InRange(0u, 2u);
  decode.Run([arguments] { Report(*arguments, Decode(*arguments)); });

  const Command devices = audio.Add("devices", "List sound devices");
  devices.AddFlag("--json", arguments->json, "print one JSON object");
  devices.Run([arguments] { ListDevices(arguments->json); });

  const Command encode = audio.Add("encode", "WAV file to a raw file of a codec");
  encode.AddOption("IN", arguments->in, "WAV file").Required();
  encode.AddOption("OUT", arguments->out, "raw file").Required();
  AddCommon(encode, *arguments, EncodableAudioCodecs());
  encode.Run([arguments] { Report(*arguments, Encode(*arguments)); });
}

}  // namespace tools
