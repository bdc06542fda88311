// From opening a camera to its first whole decoded picture: ours as a client application has it
// without asking for anything, beside libavformat with libavcodec and GStreamer. The camera is the
// test camera (`orvanta camera`, 640x360 at 25 pictures a second) in a process of its own.
//
//   running    another client watches the camera all the time; openings fall anywhere in a group
//   starting   the opening starts the camera's encoder, whose first picture is a key picture
//
// The receivers take turns, so that a slow moment hits all, each behind every other as often as
// they can, and pause alike. A picture counts when the number that the camera painted into it can
// be read. Our I/O threads are ended before each opening, so that every one pays for making them;
// GStreamer is initialised before. Prints a Markdown table.
//
//     first_picture_bench [tcp|udp] [OPENINGS]
#include <gst/gst.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/support/child_process.h"
#include "bench/support/first_picture_peers.h"
#include "cms/exports/net_exports.h"
#include "cms/streaming/rtsp_client.h"
#include "tests/support/rtsp_camera.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kFps = 25;
constexpr int kWidth = 640;
constexpr int kHeight = 360;

std::unique_ptr<CMSRTSPClient> MakeClient(const std::string& url, bool tcp, bool decode) {
  cms::stRTSPClientConfig config;
  config.path = url;
  config.transport = tcp ? cms::kRtspTransportInterleaved : cms::kRtspTransportUdp;
  auto client = std::make_unique<CMSRTSPClient>();
  client->SetConfig(&config);
  client->SetThreadedDecode(true);
  client->AllocChannelData(1);
  client->EnableDecode(0, 0);
  client->SetMustDecode(decode ? 1 : 0);
  return client;
}

bool ShowsPicture(CMSRTSPClient& client, const bench::FirstPictureJob& job) {
  tagSIZE size{};
  const unsigned char* const pixels = client.lockDecodedImage(0, &size);
  const bool shows = pixels != nullptr && size.cx == job.width && size.cy == job.height &&
                     bench::IsWhole(job, pixels, job.width * 4);
  client.unlockDecodedImage(0);
  return shows;
}

std::optional<double> OwnFirstPicture(const bench::FirstPictureJob& job) {
  StopEachClientNBManager();
  const auto start = Clock::now();
  const auto since = [&] {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  };
  const auto client = MakeClient(job.url, job.tcp, true);
  std::optional<double> taken;
  if (client->OpenStream() != 0 && client->Play() != 0) {
    while (!taken && since() < job.limit) {
      if (ShowsPicture(*client, job)) {
        taken = since();
      } else {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
      }
    }
  }
  client->StopPlay();
  client->CloseStream();
  return taken;
}

// Another client, in a process of its own since this one's I/O threads end again and again.
int Watch(const std::string& url) {
  const auto client = MakeClient(url, true, false);
  const bool plays = client->OpenStream() != 0 && client->Play() != 0;
  std::printf("%d\n", plays ? 1 : 0);
  std::fflush(stdout);
  std::getchar();
  client->StopPlay();
  client->CloseStream();
  return 0;
}

struct Receiver {
  const char* name;
  std::function<std::optional<double>(const bench::FirstPictureJob&)> open;
};

const Receiver kReceivers[] = {
    {"ours", OwnFirstPicture},
    {"ffmpeg", bench::FFmpegFirstPicture},
    {"GStreamer", bench::GStreamerFirstPicture},
};

// Of each receiver "median (worst)".
std::vector<std::string> Measure(bool running, bool tcp, int gop, int openings) {
  const test::RtspCamera camera({"--gop", std::to_string(gop), "--fps", std::to_string(kFps)});
  std::unique_ptr<bench::ChildProcess> watcher;
  if (running) {
    watcher = std::make_unique<bench::ChildProcess>(
        std::vector<std::string>{"--role=watch", camera.Url()});
    if (watcher->ReadLine() != "1") {
      std::fprintf(stderr, "the watching client failed\n");
      std::exit(1);
    }
  }
  const bench::FirstPictureJob job{
      .url = camera.Url(), .tcp = tcp, .width = kWidth, .height = kHeight};
  std::mt19937 random(7);
  std::vector<std::vector<double>> times(std::size(kReceivers));
  std::vector<int> failures(std::size(kReceivers));
  constexpr int kWarmUps = 1;
  for (int i = -kWarmUps; i < openings; ++i) {
    // The one before ended at a key picture: uniform within the group from there.
    const std::chrono::milliseconds pause(
        running ? random() % (1000u * static_cast<unsigned>(gop) / kFps) : 300 + random() % 300);
    for (std::size_t turn = 0; turn < std::size(kReceivers); ++turn) {
      const std::size_t who =
          (turn * (i % 2 == 0 ? 1 : 2) + static_cast<std::size_t>(i + kWarmUps)) %
          std::size(kReceivers);
      std::this_thread::sleep_for(pause);
      const auto taken = kReceivers[who].open(job);
      if (i < 0) {
        continue;
      }
      if (taken) {
        times[who].push_back(*taken);
      } else {
        ++failures[who];
      }
    }
  }
  std::vector<std::string> cells;
  for (std::size_t who = 0; who < times.size(); ++who) {
    std::sort(times[who].begin(), times[who].end());
    char text[64] = "no picture";
    if (!times[who].empty()) {
      std::snprintf(text, sizeof text, "%.0f (%.0f)", times[who][times[who].size() / 2],
                    times[who].back());
    }
    cells.push_back(text + (failures[who] > 0
                                ? ", " + std::to_string(failures[who]) + " without a picture"
                                : std::string()));
  }
  return cells;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 && std::string(argv[1]) == "--role=watch") {
    return Watch(argv[2]);
  }
  const bool tcp = argc < 2 || std::string(argv[1]) != "udp";
  const int openings = argc > 2 ? std::max(1, std::atoi(argv[2])) : 20;
  gst_init(nullptr, nullptr);
  std::printf("First picture over %s, ms, median of %d (worst)\n\n| camera | GOP |",
              tcp ? "TCP" : "UDP", openings);
  for (const Receiver& each : kReceivers) {
    std::printf(" %s |", each.name);
  }
  std::printf("\n|---|---|---|---|---|\n");
  for (const bool running : {true, false}) {
    for (const int seconds : {1, 2, 4}) {
      std::printf("| %s | %d s |", running ? "running" : "starting", seconds);
      for (const std::string& cell : Measure(running, tcp, seconds * kFps, openings)) {
        std::printf(" %s |", cell.c_str());
      }
      std::printf("\n");
      std::fflush(stdout);
    }
  }
  return 0;
}
