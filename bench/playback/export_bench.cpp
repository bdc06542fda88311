// Exporting a recording of 1 GiB by copying its frames, beside cp of the same file, in turns; the
// folder is that of temporary files, or the one named first. Prints one line for each. Each turn is
// run twice and measured the second time: a virtual machine's memory that was free for long is with
// its host, and getting it back takes up to a second.
//
//     export_bench [FOLDER [ROUNDS]]
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/drv_generator.h"
#include "tests/support/encoded_clip.h"

namespace {

constexpr std::uint64_t kBytes = 1ull << 30;

void Make(const std::string& path) {
  test::ClipSpec spec;
  spec.width = 1920;
  spec.height = 1080;
  spec.frames = 50;
  spec.gop = 25;
  spec.bitrate = 8'000'000;
  spec.noise = true;
  const auto clip = test::EncodeClip(spec);
  std::ofstream file(path, std::ios::binary);
  std::uint64_t written = 0;
  for (std::uint32_t i = 0; written < kBytes; ++i) {
    const auto& encoded = clip[i % clip.size()];
    test::DrvFrameSpec frame;
    frame.frameType = encoded.key ? 1 : 2;
    frame.seconds += i / 25;
    frame.sequence = i + 1;
    frame.payload.assign(encoded.data.begin(), encoded.data.end());
    const std::string bytes = test::MakeDrvFrame(frame);
    file << bytes;
    written += bytes.size();
  }
}

double Seconds(const std::string& command) {
  const auto start = std::chrono::steady_clock::now();
  if (std::system(command.c_str()) != 0) {
    std::fprintf(stderr, "failed: %s\n", command.c_str());
    std::exit(1);
  }
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
  const std::string folder =
      (argc > 1 ? std::filesystem::path(argv[1]) : std::filesystem::temp_directory_path()) /
      ("export_bench." + std::to_string(getpid()));
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
  std::filesystem::create_directories(folder);
  const std::string drv = folder + "/one.drv";
  Make(drv);
  const std::vector<std::pair<std::string, std::string>> commands = {
      {"cp", "cp " + drv + " " + folder + "/copy"},
      {"export .mp4", ORVANTA_BINARY " export " + drv + " " + folder + "/one.mp4 > /dev/null"},
      {"export .mkv", ORVANTA_BINARY " export " + drv + " " + folder + "/one.mkv > /dev/null"}};
  std::vector<std::vector<double>> times(commands.size());
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < commands.size(); ++i) {
      double taken = 0;
      for (int turn = 0; turn < 2; ++turn) {
        for (const char* made : {"/copy", "/one.mp4", "/one.mkv"}) {
          std::filesystem::remove(folder + made);
        }
        taken = Seconds(commands[i].second);
      }
      times[i].push_back(taken);
    }
  }
  for (std::size_t i = 0; i < commands.size(); ++i) {
    std::sort(times[i].begin(), times[i].end());
    const double middle = times[i][times[i].size() / 2];
    std::printf("%-12s %6.0f MiB/s\n", commands[i].first.c_str(), 1024 / middle);
  }
  std::filesystem::remove_all(folder);
  return 0;
}
