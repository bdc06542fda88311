#include "tools/data/playback_sites.h"

#include <cstdio>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <utility>

#include "cms/recording/data_root.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"
#include "tools/data/recording_folders.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

namespace fs = std::filesystem;

using Sites = std::map<std::uint32_t, std::vector<std::wstring>>;

Sites FindFiles(const PlaybackSites& wanted) {
  Sites sites;
  for (const std::string& file : wanted.files) {
    const auto number = cms::SiteNumberOf(cms::WideFromUtf8(fs::path(file).filename().string()));
    sites[static_cast<std::uint32_t>(number.value_or(1))].push_back(cms::SystemPath(file));
  }
  if (!wanted.files.empty()) {
    return sites;
  }
  for (const std::string& root : wanted.roots) {
    for (const RecordingFolder& folder : FindRecordingFolders(root)) {
      std::error_code error;
      const fs::path path = cms::PathInData(folder.path, root);
      for (fs::directory_iterator it(path, error), end; !error && it != end; it.increment(error)) {
        const std::wstring name = cms::WideFromUtf8(it->path().filename().string());
        const auto number = cms::SiteNumberOf(name);
        if (number && it->path().extension() == ".drv") {
          sites[static_cast<std::uint32_t>(*number)].push_back(
              cms::SystemPath(it->path().lexically_normal().string()));
        }
      }
    }
  }
  return sites;
}

}  // namespace

_MULTI_SITE_PLAYBACK_CONFIG PlaybackConfigOf(const PlaybackSites& wanted) {
  Sites found = FindFiles(wanted);
  _MULTI_SITE_PLAYBACK_CONFIG config;
  config.startPaused = true;
  config.startTime = wanted.from;
  std::vector<std::uint32_t> numbers = wanted.sites;
  if (numbers.empty()) {
    for (const auto& [number, files] : found) {
      numbers.push_back(number);
    }
  }
  if (numbers.size() > kMostPlayedSites) {
    throw std::runtime_error(std::to_string(numbers.size()) + " sites were recorded, " +
                             std::to_string(kMostPlayedSites) +
                             " are played at once; choose with --site");
  }
  for (const std::uint32_t number : numbers) {
    if (found[number].empty()) {
      throw std::runtime_error("site " + std::to_string(number) + ": no recording in " +
                               wanted.data);
    }
    cms::_MULTI_PB_SITE_CONFIG site;
    site.siteNumber = number;
    site.siteName = L"site " + std::to_wstring(number);
    site.files = found[number];
    site.channelCount = 0;
    site.followNewFiles = wanted.files.empty();
    config.sites.push_back(std::move(site));
  }
  if (config.sites.empty()) {
    throw std::runtime_error(wanted.data + ": no recording there");
  }
  return config;
}

std::string PlaybackTimeText(std::int64_t milliseconds) {
  char fraction[8];
  std::snprintf(fraction, sizeof fraction, ".%03d", static_cast<int>(milliseconds % 1000));
  std::string text = UtcTime(milliseconds / 1000);
  return text.insert(text.size() - 1, fraction);
}

}  // namespace tools
