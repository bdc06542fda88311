// The test camera against ffprobe and curl, so that the library's own tests may rely on it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/encoded_clip.h"
#include "tests/support/network_namespace.h"
#include "tests/support/paths.h"
#include "tests/support/rtp_packetizer.h"
#include "tests/support/rtsp_camera.h"
#include "tests/support/shell.h"

namespace {

using test::RtspCamera;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

// Standard error comes with the output.
test::ShellResult RunBoth(const std::string& command) {
  return test::RunShell(command + " 2>&1");
}

// Of this process only: tests run beside each other.
std::string TempFile(const std::string& name) {
  return testing::TempDir() + "camera_" + std::to_string(getpid()) + "_" + name;
}

// Codec, profile or rate, and size of each stream, with some pictures decoded.
std::string CameraProbe(const std::string& url, const std::string& options) {
  return RunBoth("ffprobe -v error " + options +
                 " -show_entries stream=codec_name,profile,width,height,sample_rate -of csv=p=0 "
                 "-probesize 200k -analyzeduration 500k '" +
                 url + "'")
      .output;
}

std::string OverUdp(const std::string& url) {
  return CameraProbe(url, "-rtsp_transport udp");
}
std::string OverTcp(const std::string& url) {
  return CameraProbe(url, "-rtsp_transport tcp");
}

TEST(Camera, ServesEachCodecOverBothTransports) {
  const struct {
    std::vector<std::string> options;
    std::string video;
    std::string audio;
  } cases[] = {
      {{"--audio", "pcmu"}, "h264,Constrained Baseline,640,360", "pcm_mulaw"},
      {{"--profile", "high", "--audio", "pcma", "--packets", "stap", "--delimiters", "on"},
       "h264,High,640,360",
       "pcm_alaw"},
      {{"--parameter-sets", "sdp", "--size", "320x240", "--mtu", "600"},
       "h264,Constrained Baseline,320,240",
       ""},
      {{"--parameter-sets", "inband", "--fps", "50"}, "h264,Constrained Baseline,640,360", ""},
      {{"--codec", "mjpeg", "--audio", "l16"}, "mjpeg,Baseline,640,360", "pcm_s16be"},
      {{"--codec", "mpeg4", "--audio", "pcmu"}, "mpeg4,Simple Profile,640,360", "pcm_mulaw"},
      {{"--codec", "h265", "--slices", "3", "--audio", "aac"}, "hevc,Main,640,360", "aac,LC,16000"},
      {{"--codec", "h265", "--packets", "stap", "--parameter-sets", "sdp"},
       "hevc,Main,640,360",
       ""},
      {{"--codec", "h265", "--parameter-sets", "inband", "--audio", "g726"},
       "hevc,Main,640,360",
       "adpcm_g726le"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(testing::PrintToString(each.options));
    RtspCamera camera(each.options);
    EXPECT_THAT(OverTcp(camera.Url()), AllOf(HasSubstr(each.video), HasSubstr(each.audio)));
    EXPECT_THAT(OverUdp(camera.Url()), AllOf(HasSubstr(each.video), HasSubstr(each.audio)));
    EXPECT_EQ(camera.Stop(), 0);
  }
}

// The types of a key picture's units, in their order.
TEST(Camera, PutsAroundTheSlicesWhatIsAskedFor) {
  const struct {
    std::string codec;
    std::string container;
    std::vector<int> units;
  } cases[] = {{"h264", "h264", {9, 7, 8, 6, 5, 5, 5, 12}},
               {"h265", "hevc", {35, 32, 33, 34, 39, 20, 20, 20, 38}}};
  for (const auto& each : cases) {
    SCOPED_TRACE(each.codec);
    RtspCamera camera({"--codec", each.codec, "--slices", "3", "--delimiters", "on", "--sei", "on",
                       "--key-size", "600000", "--gop", "5"});
    const std::string grabbed = RunBoth("ffmpeg -v error -rtsp_transport tcp -i " + camera.Url() +
                                        " -frames:v 10 -c copy -f " + each.container + " -")
                                    .output;
    std::vector<std::vector<int>> pictures;
    std::size_t filled = 0;
    for (const test::Bytes unit : test::SplitAnnexB(
             {reinterpret_cast<const std::uint8_t*>(grabbed.data()), grabbed.size()})) {
      const int type = each.codec == "h265" ? unit[0] >> 1 & 0x3F : unit[0] & 0x1F;
      if (type == each.units.front()) {
        pictures.emplace_back();
      }
      ASSERT_FALSE(pictures.empty());
      pictures.back().push_back(type);
      filled += type == each.units.back() ? unit.size() : 0;
    }
    // x264 names itself in a message of its first picture.
    EXPECT_EQ(std::count(pictures.begin() + 1, pictures.end(), each.units), 1)
        << testing::PrintToString(pictures);
    EXPECT_GT(filled, 500'000u);
  }
}

TEST(Camera, NumbersItsPicturesForReadFrameNumber) {
  RtspCamera camera({"--gop", "5"});
  const std::string file = TempFile("frames.bgra");
  const test::ShellResult grabbed =
      RunBoth("ffmpeg -v error -y -rtsp_transport tcp -i " + camera.Url() +
              " -frames:v 5 -pix_fmt bgra -f rawvideo " + file);
  ASSERT_EQ(grabbed.status, 0) << grabbed.output;
  std::ifstream stream(file, std::ios::binary);
  std::vector<char> picture(640 * 360 * 4);
  int last = -1;
  for (int i = 0; i < 5; ++i) {
    ASSERT_TRUE(stream.read(picture.data(), static_cast<std::streamsize>(picture.size())));
    const int number = test::ReadFrameNumber(reinterpret_cast<const std::uint8_t*>(picture.data()),
                                             640, 360, 640 * 4, 640);
    EXPECT_TRUE(i == 0 ? number >= 0 : number == last + 1) << number << " after " << last;
    last = number;
  }
  std::filesystem::remove(file);
}

TEST(Camera, AsksForPasswordsOverRtspAndHttp) {
  for (const std::string scheme : {"basic", "digest"}) {
    SCOPED_TRACE(scheme);
    RtspCamera camera({"--auth", scheme, "--user", "u", "--password", "p w", "--http", "0"});
    const std::string good = test::WithCredentials(camera.Url(), "u", "p%20w");
    EXPECT_THAT(OverTcp(good), HasSubstr("h264"));
    EXPECT_THAT(OverTcp(test::WithCredentials(camera.Url(), "u", "wrong")), HasSubstr("401"));
    const std::string curl = "curl -s -m 1 -o /dev/null -w 'status %{http_code}' --" + scheme;
    EXPECT_THAT(RunBoth(curl + " -u 'u:p w' " + camera.HttpUrl()).output, HasSubstr("status 200"));
    EXPECT_THAT(RunBoth(curl + " -u u:x " + camera.HttpUrl()).output, HasSubstr("status 401"));
    EXPECT_THAT(RunBoth(curl + " " + camera.HttpUrl() + "x").output, HasSubstr("status 404"));
  }
}

TEST(Camera, AsksForTheDigestsOfToday) {
  for (const std::string scheme : {"digest-qop", "digest-sha256", "all"}) {
    SCOPED_TRACE(scheme);
    RtspCamera camera({"--auth", scheme, "--password", "p w", "--http", "0"});
    const std::string curl = "curl -s -m 1 -o /dev/null -w 'status %{http_code}' ";
    const auto status = [&](const std::string& login) {
      return RunBoth(curl + login + " " + camera.HttpUrl()).output;
    };
    EXPECT_THAT(status("--digest -u 'admin:p w'"), HasSubstr("status 200"));
    EXPECT_THAT(status("--digest -u admin:x"), HasSubstr("status 401"));
    EXPECT_THAT(status("--basic -u 'admin:p w'"),
                HasSubstr(scheme == "all" ? "status 200" : "status 401"));
    const bool known = scheme != "digest-sha256";  // to FFmpeg
    EXPECT_THAT(OverTcp(test::WithCredentials(camera.Url(), "admin", "p%20w")),
                HasSubstr(known ? "h264" : "401"));
    EXPECT_THAT(OverTcp(test::WithCredentials(camera.Url(), "admin", "x")), HasSubstr("401"));
  }
}

TEST(Camera, OffersTheTransportsOfToday) {
  const std::string certificate = TempFile("certificate.pem");
  RtspCamera tls({"--tls"});
  EXPECT_THAT(tls.Url(), testing::StartsWith("rtsps://"));
  EXPECT_EQ(tls.Fingerprint().size(), 3u * 32 - 1);
  EXPECT_THAT(OverTcp(tls.Url()), HasSubstr("h264"));
  std::string first;
  for (int run = 0; run < 2; ++run) {
    RtspCamera kept({"--certificate", certificate, "--auth", "digest"});
    first = run == 0 ? kept.Fingerprint() : first;
    EXPECT_EQ(kept.Fingerprint(), first);
    EXPECT_THAT(RunBoth("openssl x509 -noout -fingerprint -sha256 -in " + certificate).output,
                HasSubstr(first));
    EXPECT_THAT(OverTcp(test::WithCredentials(kept.Url(), "admin", "admin")), HasSubstr("h264"));
  }
  std::filesystem::remove(certificate);

  RtspCamera six({"--bind", "::1"});
  EXPECT_THAT(six.Url(), testing::StartsWith("rtsp://[::1]:"));
  EXPECT_THAT(OverUdp(six.Url()), HasSubstr("h264"));
  EXPECT_THAT(CameraProbe(six.Url(), "-rtsp_transport http"), HasSubstr("h264"));
}

TEST(Camera, SendsToAGroup) {
  std::string reason;
  const bool permitted = test::InNetworkNamespace(
      [] {
        ASSERT_EQ(RunBoth("ip link set lo up && ip route add 239.0.0.0/8 dev lo").status, 0);
        RtspCamera camera({"--transports", "multicast", "--audio", "pcmu"});
        EXPECT_THAT(CameraProbe(camera.Url(), "-rtsp_transport udp_multicast"),
                    AllOf(HasSubstr("h264"), HasSubstr("pcm_mulaw")));
        EXPECT_THAT(OverUdp(camera.Url()), HasSubstr("461"));
      },
      reason);
  if (!permitted) {
    GTEST_SKIP() << reason;
  }
}

TEST(Camera, SendsPicturesOverHttpDespiteASlowClient) {
  RtspCamera camera({"--http", "0", "--pattern", "ball"});
  FILE* slow = popen(("curl -s --limit-rate 1k -o /dev/null " + camera.HttpUrl()).c_str(), "r");
  EXPECT_THAT(CameraProbe(camera.HttpUrl(), "-f mpjpeg"), HasSubstr("mjpeg,Baseline,640,360"));
  EXPECT_EQ(camera.Stop(), 0);
  pclose(slow);
}

TEST(Camera, RefusesWhatItIsToldToRefuse) {
  RtspCamera tcpOnly({"--transports", "tcp"});
  EXPECT_THAT(OverUdp(tcpOnly.Url()), HasSubstr("461"));
  EXPECT_THAT(OverUdp(tcpOnly.Url() + "x"), HasSubstr("404"));

  RtspCamera full({"--max-sessions", "1", "--session-timeout", "60"});
  FILE* first = popen(("timeout 20 ffmpeg -v quiet -rtsp_transport tcp -i " + full.Url() +
                       " -t 3 -progress - -stats_period 0.1 -f null -")
                          .c_str(),
                      "r");
  char line[512];
  while (std::fgets(line, sizeof line, first) != nullptr &&
         std::string(line).find("progress=continue") == std::string::npos) {
  }
  EXPECT_THAT(OverTcp(full.Url()), HasSubstr("503"));
  pclose(first);
}

// The file lasts 0.4 seconds; time stamps and sequence numbers go on over its end.
TEST(Camera, PlaysAFileForEver) {
  const std::string file = TempFile("loop.h264");
  {
    std::ofstream out(file, std::ios::binary);
    for (const test::EncodedFrame& frame : test::EncodeClip({.frames = 10})) {
      out.write(reinterpret_cast<const char*>(frame.data.data()),
                static_cast<std::streamsize>(frame.data.size()));
    }
  }
  RtspCamera camera({"--file", file});
  const std::string times = RunBoth(
                                "ffprobe -v warning -rtsp_transport tcp -read_intervals %+2 "
                                "-show_entries packet=pts_time -of csv=p=0 " +
                                camera.Url())
                                .output;
  EXPECT_THAT(times, Not(HasSubstr("missed")));
  std::istringstream lines(times);
  std::string line;
  double last = -1;
  int count = 0;
  while (std::getline(lines, line)) {
    if (line.empty()) {
      continue;  // stands for the wall time that ffprobe knows after a sender report
    }
    const double time = std::atof(line.c_str());
    if (count++ > 0) {
      EXPECT_NEAR(time - last, 0.04, 0.002) << "packet " << count << " of\n" << times;
    }
    last = time;
  }
  EXPECT_GT(count, 30);
  EXPECT_EQ(camera.Stop(), 0);
  std::filesystem::remove(file);
}

TEST(Camera, LosesPacketsWhenAsked) {
  RtspCamera camera({"--drop-percent", "20", "--mtu", "300"});
  EXPECT_THAT(
      RunBoth("ffmpeg -v warning -rtsp_transport udp -i " + camera.Url() + " -t 1 -f null -")
          .output,
      HasSubstr("missed"));
}

TEST(Camera, ComesBackAtItsPortsAndSurvivesClientsThatVanish) {
  RtspCamera cameras({"--count", "3"});
  ASSERT_EQ(cameras.Count(), 3u);
  const std::string url = cameras.Url(2);
  FILE* client = popen(("ffmpeg -v quiet -rtsp_transport udp -i " + url +
                        " -f null - & "
                        "pid=$!; sleep 1; kill -9 $pid")
                           .c_str(),
                       "r");
  pclose(client);
  EXPECT_THAT(OverTcp(url), HasSubstr("h264"));
  cameras.Kill();
  cameras.Start();
  EXPECT_EQ(cameras.Url(2), url);
  EXPECT_THAT(OverUdp(url), HasSubstr("h264"));
}

TEST(CommandLine, KeepsItsContract) {
  const std::string orvanta = test::OrvantaBinary();
  const struct {
    std::string arguments;
    int status;
    std::string message;
  } cases[] = {
      {"", 2, "orvanta: "},
      {"nosuch", 2, "nosuch"},
      {"camera --nosuch", 2, "--nosuch"},
      {"camera --codec vp8", 2, "orvanta camera: --codec: vp8 is none of h264|h265|mjpeg|mpeg4"},
      {"camera --size 12", 2, "--size"},
      {"camera --port 70000", 2, "--port"},
      {"camera --file /nonexistent", 2, "--file"},
      {"camera --port 0 --file /etc/passwd", 1, "/etc/passwd"},
      {"camera --bind 192.0.2.77", 1, "192.0.2.77"},
      {"camera --bind here", 2, "--bind"},
      {"camera --port 0 --pattern nosuch", 2, "--pattern"},
  };
  for (const auto& each : cases) {
    SCOPED_TRACE(each.arguments);
    const test::ShellResult result = RunBoth(orvanta + " " + each.arguments);
    EXPECT_EQ(result.status, each.status);
    EXPECT_THAT(result.output, HasSubstr(each.message));
    EXPECT_EQ(result.output.find('\n'), result.output.size() - 1) << result.output;
  }
  const test::ShellResult help = RunBoth(orvanta + " camera --help");
  EXPECT_EQ(help.status, 0);
  EXPECT_THAT(help.output, HasSubstr("--max-sessions"));

  // One JSON object, and a clean end at SIGTERM, also when it comes several times at once.
  const std::string file = TempFile("json");
  const test::ShellResult json =
      RunBoth("sh -c '" + orvanta + " camera --port 0 --http 0 --count 2 --json >" + file +
              " & while ! [ -s " + file +
              " ]; do sleep 0.02; done; kill $!; for i in 1 2 3; do kill $!; done; wait $!; "
              "status=$?; cat " +
              file + "; rm " + file + "; exit $status'");
  EXPECT_EQ(json.status, 0);
  const auto object = nlohmann::json::parse(json.output, nullptr, false);
  ASSERT_FALSE(object.is_discarded()) << json.output;
  ASSERT_EQ(object["cameras"].size(), 2u);
  EXPECT_THAT(object["cameras"][1]["url"].get<std::string>(), HasSubstr("rtsp://127.0.0.1:"));
  EXPECT_THAT(object["cameras"][1]["http_url"].get<std::string>(), HasSubstr("/video.mjpg"));
}

}  // namespace
