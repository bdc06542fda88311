#include "tools/fleet/recorded_times.h"

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <optional>

#include "cms/recording/drv_format.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

std::optional<unsigned> SiteOfName(const std::string& name) {
  constexpr std::string_view kStem = "Rec_Site";
  unsigned site = 0;
  if (!name.starts_with(kStem)) {
    return std::nullopt;
  }
  const char* begin = name.data() + kStem.size();
  const auto [end, error] = std::from_chars(begin, name.data() + name.size(), site);
  return error == std::errc() && *end == '_' ? std::optional(site) : std::nullopt;
}

void ReadIndex(const fs::path& path, std::vector<std::int64_t>& times) {
  std::ifstream file(path, std::ios::binary);
  DrvIdx record{};
  while (file.read(reinterpret_cast<char*>(&record), sizeof record)) {
    times.push_back(static_cast<std::int64_t>(record.milliseconds));
  }
}

std::vector<RecordedSpan> SpansOf(std::vector<std::int64_t> times) {
  std::sort(times.begin(), times.end());
  std::vector<RecordedSpan> spans;
  for (const std::int64_t time : times) {
    if (spans.empty() || time - spans.back().to > RecordedTimes::kApart) {
      spans.push_back({time, time});
    }
    spans.back().to = time;
  }
  return spans;
}

}  // namespace

RecordedTimes ReadRecordedTimes(const std::map<std::string, std::string>& folders) {
  RecordedTimes result;
  for (const auto& [recorder, folder] : folders) {
    std::map<unsigned, std::vector<std::int64_t>> times;
    std::error_code ignored;
    for (const auto& entry : fs::recursive_directory_iterator(folder, ignored)) {
      const auto site = SiteOfName(entry.path().filename().string());
      if (site && entry.path().extension() == ".idx") {
        ReadIndex(entry.path(), times[*site]);
      }
    }
    for (auto& [site, each] : times) {
      result.spans[site][recorder] = SpansOf(std::move(each));
    }
  }
  return result;
}

std::int64_t RecordedTimes::LongestGap(unsigned site, RecordedSpan window) const {
  std::vector<RecordedSpan> all;
  if (const auto found = spans.find(site); found != spans.end()) {
    for (const auto& [recorder, each] : found->second) {
      all.insert(all.end(), each.begin(), each.end());
    }
  }
  std::sort(all.begin(), all.end(),
            [](const RecordedSpan& a, const RecordedSpan& b) { return a.from < b.from; });
  std::int64_t reached = window.from;
  std::int64_t longest = 0;
  for (const RecordedSpan& span : all) {
    longest = std::max(longest, std::min(span.from, window.to) - reached);
    reached = std::max(reached, span.to);
  }
  return std::max(longest, window.to - reached);
}

std::int64_t RecordedTimes::RecordedTwice(unsigned site, RecordedSpan window) const {
  std::vector<std::pair<std::int64_t, int>> edges;
  if (const auto found = spans.find(site); found != spans.end()) {
    for (const auto& [recorder, each] : found->second) {
      for (const RecordedSpan& span : each) {
        edges.emplace_back(std::clamp(span.from, window.from, window.to), 1);
        edges.emplace_back(std::clamp(span.to, window.from, window.to), -1);
      }
    }
  }
  std::sort(edges.begin(), edges.end());
  std::int64_t twice = 0;
  std::int64_t last = window.from;
  int recorders = 0;
  for (const auto& [time, change] : edges) {
    twice += recorders > 1 ? time - last : 0;
    recorders += change;
    last = time;
  }
  return twice;
}

std::string Timeline(const RecordedTimes& times, const std::map<unsigned, std::string>& cameras,
                     RecordedSpan window, std::size_t columns) {
  std::string text;
  const std::int64_t step =
      std::max<std::int64_t>((window.to - window.from) / static_cast<std::int64_t>(columns), 1);
  for (const auto& [site, recorders] : times.spans) {
    const auto name = cameras.find(site);
    for (const auto& [recorder, spans] : recorders) {
      std::string line(columns, '.');
      for (const RecordedSpan& span : spans) {
        for (std::size_t i = 0; i < columns; ++i) {
          const std::int64_t from = window.from + static_cast<std::int64_t>(i) * step;
          if (span.from < from + step && span.to >= from) {
            line[i] = '#';
          }
        }
      }
      std::string head =
          (name == cameras.end() ? std::to_string(site) : name->second) + " " + recorder;
      head.resize(std::max<std::size_t>(head.size(), 14), ' ');
      text += head + " " + line + "\n";
    }
  }
  return text;
}

}  // namespace tools
