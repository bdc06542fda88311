// The whole way: the test camera, a real RTSP server, received by `orvanta live`.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <numbers>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/faulty_file_io.h"
#include "tests/support/paths.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"

namespace {

using nlohmann::json;
using test::RtspCamera;
using test::RunOrvanta;
using test::ShellResult;
using testing::HasSubstr;
using testing::Not;

json Streams(const ShellResult& result) {
  EXPECT_EQ(result.status, 0) << result.errors;
  const json parsed = json::parse(result.output, nullptr, false);
  return parsed.is_object() ? parsed["streams"] : json::array();
}

struct LiveWay {
  const char* name;
  std::vector<std::string> camera;
  const char* codec;
  const char* audio;
  bool decoded;
};

const LiveWay kLiveWays[] = {
    {"BaselinePcmu", {"--audio", "pcmu"}, "H264", "PCMU", true},
    {"HighWithDelimitersPcma",
     {"--profile", "high", "--delimiters", "on", "--audio", "pcma", "--packets", "stap"},
     "H264",
     "PCMA",
     true},
    {"HighInDescriptionOnly", {"--profile", "high", "--parameter-sets", "sdp"}, "H264", "", true},
    {"MjpegL16", {"--codec", "mjpeg", "--audio", "l16"}, "JPEG", "L16", true},
    {"BaselineAac", {"--audio", "aac"}, "H264", "MPEG4-GENERIC", true},
    {"BaselineG726", {"--audio", "g726"}, "H264", "G726-32", true},
    {"BaselineLatm", {"--audio", "latm"}, "H264", "MP4A-LATM", true},
    {"Mpeg4Pcmu", {"--codec", "mpeg4", "--audio", "pcmu"}, "MP4V-ES", "PCMU", true},
    {"H265Aac",
     {"--codec", "h265", "--delimiters", "on", "--sei", "on", "--audio", "aac"},
     "H265",
     "MPEG4-GENERIC",
     true},
    {"SlicesG726",
     {"--slices", "4", "--delimiters", "on", "--sei", "on", "--audio", "g726"},
     "H264",
     "G726-32",
     true},
};

// What was heard of the cameras' tone, a sine of 440 Hz at half of full scale.
struct HeardTone {
  int windows = 0;  // of 50 ms
  int strange = 0;  // where more than 5 % of the energy is no such sine
  double amplitude = 0;
};

HeardTone ListenTo(const std::string& path, int rate) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), {});
  std::vector<std::int16_t> samples(bytes.size() / sizeof(std::int16_t));
  std::memcpy(samples.data(), bytes.data(), samples.size() * sizeof(std::int16_t));
  const auto window = static_cast<std::size_t>(rate / 20);  // 22 periods
  HeardTone heard;
  for (std::size_t at = 2 * window; at + window <= samples.size(); at += window) {
    double sine = 0;
    double cosine = 0;
    double energy = 0;
    for (std::size_t i = 0; i < window; ++i) {
      const double angle = 2 * std::numbers::pi * 440 * static_cast<double>(i) / rate;
      const double sample = samples[at + i];
      sine += sample * std::sin(angle);
      cosine += sample * std::cos(angle);
      energy += sample * sample;
    }
    const double tone = (sine * sine + cosine * cosine) * 2 / static_cast<double>(window);
    heard.strange += energy - tone > 0.05 * energy || energy == 0 ? 1 : 0;
    heard.amplitude += std::sqrt(tone * 2 / static_cast<double>(window));
    ++heard.windows;
  }
  heard.amplitude /= std::max(heard.windows, 1);
  return heard;
}

class LiveWays : public testing::TestWithParam<LiveWay> {};
INSTANTIATE_TEST_SUITE_P(, LiveWays, testing::ValuesIn(kLiveWays),
                         [](const auto& way) { return way.param.name; });

TEST_P(LiveWays, AreReceivedAndHeardOverBothTransports) {
  const LiveWay& way = GetParam();
  const test::TemporaryFolder folder;
  RtspCamera camera(way.camera);
  // One after the other: two first clients at once can leave GStreamer's shared media without
  // sound.
  for (const std::string transport : {"udp", "tcp"}) {
    const std::string heard = folder.File(transport + ".raw");
    const std::string listen = " --listen --device file:FILE=" + heard + ",FORMAT=raw ";
    const json stream =
        Streams(RunOrvanta("live --json --frames 40 --seconds 20 --transport " + transport +
                           (*way.audio != '\0' ? listen : " ") + camera.Url()))[0];
    SCOPED_TRACE(stream.dump());
    EXPECT_EQ(stream["codec"], way.codec);
    EXPECT_EQ(stream["audio_codec"], way.audio);
    EXPECT_EQ(stream["width"], 640);
    EXPECT_EQ(stream["height"], 360);
    EXPECT_GE(stream["frames"], 40);
    EXPECT_GE(stream["key_frames"], 1);
    EXPECT_EQ(stream["lost_packets"], 0);
    EXPECT_EQ(stream["decode_errors"], 0);
    EXPECT_EQ(stream["audio_frames"].get<int>() > 0, *way.audio != '\0');
    if (*way.audio != '\0') {
      const std::string codec = way.audio;
      const bool aac = codec == "MPEG4-GENERIC" || codec == "MP4A-LATM";
      const HeardTone tone = ListenTo(heard, aac ? 16'000 : 8'000);
      EXPECT_GE(tone.windows, 10);
      EXPECT_EQ(tone.strange, 0);
      EXPECT_NEAR(tone.amplitude, 16'384, 800);
    }
    if (way.decoded) {
      // The last frames may still be in the decoder.
      EXPECT_GE(stream["decoded"].get<int>(), stream["frames"].get<int>() - 2);
    } else {
      EXPECT_EQ(stream["decoded"], 0);
    }
  }
}

TEST(Live, ReceivesWithoutDecodingAndStillKnowsTheSize) {
  RtspCamera camera({"--size", "320x240"});
  const json stream = Streams(RunOrvanta("live --json --no-decode --frames 30 " + camera.Url()))[0];
  EXPECT_EQ(stream["width"], 320);
  EXPECT_EQ(stream["decoded"], 0);
  EXPECT_EQ(stream["not_decoded"], stream["frames"]);
}

TEST(Live, LogsInOverRtspAndHttpAndWritesPictures) {
  for (const std::string login : {"basic", "digest"}) {
    RtspCamera camera({"--auth", login, "--password", "p@ss:w%rd", "--http", "0"});
    const std::string folder = testing::TempDir() + "live-" + login + std::to_string(getpid());
    std::filesystem::create_directories(folder);
    const std::string rtsp = test::WithCredentials(camera.Url(), "admin", "p%40ss:w%25rd");
    const std::string http = test::WithCredentials(camera.HttpUrl(), "admin", "p%40ss:w%25rd");
    const ShellResult result =
        RunOrvanta("live --json --frames 10 --seconds 20 --size 160x90 " +
                   ("--snapshot " + folder + "/seen.png ") +
                   (login == "basic" ? "--allow-basic " : "") + "'" + rtsp + "' '" + http + "'");
    const json streams = Streams(result);
    ASSERT_EQ(streams.size(), 2u);
    EXPECT_GE(streams[0]["frames"], 10);
    EXPECT_GE(streams[1]["frames"], 10);
    EXPECT_THAT(result.output + result.errors, Not(HasSubstr("p%40ss")));
    for (const std::string name : {"/seen-1.png", "/seen-2.png"}) {
      EXPECT_EQ(test::RunShell("ffprobe -v error -show_entries stream=width,height -of csv=p=0 " +
                               folder + name)
                    .output,
                "160,90\n");
    }
    std::filesystem::remove_all(folder);
  }
}

TEST(Live, FailuresAreOneClearLine) {
  RtspCamera camera({"--auth", "digest", "--http", "0"});
  const std::string wrong = test::WithCredentials(camera.Url(), "admin", "wr0ng");
  const std::string elsewhere =
      test::WithCredentials(camera.Url(), "admin", "admin") + "/nothing-here";
  const struct {
    std::string arguments;
    int status;
    std::string says;
  } cases[] = {
      {wrong, 1, "password refused"},
      {test::WithCredentials(camera.HttpUrl(), "admin", "wr0ng"), 1, "password refused"},
      {elsewhere, 1, "no such stream"},
      {"rtsp://127.0.0.1:1/live", 1, "cannot connect: Connection refused"},
      {"rtsp://no-such-host.invalid/live", 1, "no-such-host.invalid"},
      {"telnet://127.0.0.1/", 2, "is not a URL"},
      {"", 2, "urls is required"},
      {camera.Url() + " --size 12", 2, "--size"},
      {camera.Url() + " --size 99999x99999", 2, "larger than 16384x16384"},
      {camera.Url() + " --transport carrier-pigeon", 2, "--transport"},
      {camera.Url() + " --no-decode --snapshot x.png", 2, "--snapshot"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.arguments);
    const ShellResult result = RunOrvanta("live " + each.arguments);
    EXPECT_EQ(result.status, each.status);
    EXPECT_THAT(result.errors, HasSubstr(each.says));
    EXPECT_THAT(result.errors, HasSubstr("orvanta live: "));
    EXPECT_EQ(std::count(result.errors.begin(), result.errors.end(), '\n'), 1) << result.errors;
    EXPECT_THAT(result.errors, Not(HasSubstr("wr0ng")));
  }
}

TEST(Live, AFullCameraIsToldApartAndAnUnofferedTransportMakesRoom) {
  RtspCamera full({"--max-sessions", "1"});
  const ShellResult one =
      RunOrvanta("live --frames 200 --seconds 5 --json " + full.Url() + " " + full.Url());
  EXPECT_EQ(one.status, 1);
  EXPECT_THAT(one.errors, HasSubstr("camera full"));
  RtspCamera tcpOnly({"--transports", "tcp"});
  const json udp =
      Streams(RunOrvanta("live --json --frames 5 --transport udp " + tcpOnly.Url()))[0];
  EXPECT_EQ(udp["transport"], "tcp");
  EXPECT_GE(udp["frames"], 5);
  const json http =
      Streams(RunOrvanta("live --json --frames 5 --transport http " + tcpOnly.Url()))[0];
  EXPECT_EQ(http["transport"], "http");
  EXPECT_GE(http["frames"], 5);
}

// As a user goes about it: the refusal tells the fingerprint, which is then given.
TEST(Live, ACamerasOwnCertificateIsTakenOnceItIsPinned) {
  RtspCamera camera({"--tls", "--auth", "digest-sha256"});
  const std::string url = "'" + test::WithCredentials(camera.Url(), "admin", "admin") + "'";
  ASSERT_THAT(url, HasSubstr("rtsps://"));
  const std::string live = "live --json --transport tcp --frames 5 ";
  const ShellResult refused = RunOrvanta(live + url);
  EXPECT_EQ(refused.status, 1);
  EXPECT_THAT(refused.errors, HasSubstr("certificate refused"));
  constexpr char kBefore[] = "fingerprint is ";
  const std::size_t at = refused.errors.find(kBefore);
  ASSERT_NE(at, std::string::npos) << refused.errors;
  const std::string shown = refused.errors.substr(at + sizeof kBefore - 1, 95);
  EXPECT_GE(Streams(RunOrvanta(live + "--fingerprint " + shown + " " + url))[0]["frames"], 5);
  EXPECT_GE(Streams(RunOrvanta(live + "--insecure " + url))[0]["frames"], 5);
  EXPECT_EQ(RunOrvanta(live + "--fingerprint AB:CD " + url).status, 2);
}

TEST(Live, ACameraSwitchedOffAndOnIsBack) {
  RtspCamera camera;
  ShellResult result;
  std::thread watching(
      [&] { result = RunOrvanta("live --json --seconds 14 --transport tcp " + camera.Url()); });
  std::this_thread::sleep_for(std::chrono::seconds(4));
  camera.Kill();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  camera.Start();
  watching.join();
  const json streams = Streams(result);
  ASSERT_EQ(streams.size(), 1u);
  EXPECT_EQ(streams[0]["reconnects"], 1) << streams.dump();
  EXPECT_GE(streams[0]["frames"], 100);
}

TEST(Live, StopsCleanlyOnSigterm) {
  RtspCamera camera;
  const ShellResult result = test::RunShell("timeout --preserve-status -s TERM 4 " +
                                            test::OrvantaBinary() + " live --json " + camera.Url());
  EXPECT_GE(Streams(result)[0]["frames"], 10);
}

}  // namespace
