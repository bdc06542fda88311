#include "tools/support/live_summary.h"

#include <cstdio>
#include <string>

namespace tools {
namespace {

std::string OrDash(const std::string& text) {
  return text.empty() ? "-" : text;
}

std::string Size(const nlohmann::ordered_json& stream) {
  const auto width = stream.at("width").get<unsigned>();
  return width == 0
             ? "-"
             : std::to_string(width) + "x" + std::to_string(stream.at("height").get<unsigned>());
}

}  // namespace

void PrintSummary(const nlohmann::ordered_json& streams) {
  std::printf("\n%3s  %-7s %-10s %-6s %7s %6s %8s %6s %8s %8s  %s\n", "", "video", "size", "audio",
              "frames", "fps", "kbit/s", "lost", "decoded", "dropped", "first picture");
  int number = 0;
  for (const auto& stream : streams) {
    const auto count = [&stream](const char* name) {
      return stream.at(name).get<unsigned long long>();
    };
    // Left out on purpose (--no-decode) is not dropped.
    const bool decodes = count("decoded") + count("decode_errors") > 0;
    const auto leftOut = decodes ? count("not_decoded") : 0;
    const auto first = count("first_picture_ms");
    std::printf("#%-2d  %-7s %-10s %-6s %7llu %6.1f %8.0f %6llu %8llu %8llu  %s\n", ++number,
                OrDash(stream.at("codec")).c_str(), Size(stream).c_str(),
                OrDash(stream.at("audio_codec")).c_str(), count("frames"),
                stream.at("fps").get<double>(), stream.at("kbps").get<double>(),
                count("lost_packets"), count("decoded"),
                leftOut + count("decode_errors") + count("oversize_frames"),
                first == 0 ? "-" : (std::to_string(first) + " ms").c_str());
    if (const auto problem = stream.at("audio_problem").get<std::string>(); !problem.empty()) {
      std::printf("     sound: %s\n", problem.c_str());
    }
  }
}

}  // namespace tools
