// RecordingTarget, what the next file of a recorder is to be.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cms/recording/internal/recording_file.h"

namespace cms {

struct RecordingTarget {
  std::string dataRoot;                 // empty: that of the process
  std::wstring path;                    // a folder and the front of a name, located in the root
  std::optional<std::wstring> newPath;  // in its place from the next file on
  int sizeMiB = 0;                      // behind which a file ends
  int limit2 = 0;
  RecordedDevice device;
  std::array<std::vector<std::uint8_t>, 3> streamHeaders;  // as SetStreamHeaders was told

  bool IsWhole() const { return sizeMiB > 0 && limit2 > 0 && !path.empty(); }
  std::uint64_t Size() const { return static_cast<std::uint64_t>(std::max(sizeMiB, 0)) << 20u; }
  const std::wstring& NextPath() const { return newPath ? *newPath : path; }
  void TakeNewPath() {
    if (newPath) {
      path = *std::exchange(newPath, std::nullopt);
    }
  }

  std::shared_ptr<RecordingFile> FileOf(std::int64_t startTime) const {
    auto file = std::make_shared<RecordingFile>();
    file->front = path;
    file->dataRoot = dataRoot;
    file->startTime = startTime;
    file->device = device;
    if (limit2 != 1) {
      file->headers = streamHeaders[streamHeaders[0].empty() ? 1 : 0];
      file->headers.insert(file->headers.end(), streamHeaders[2].begin(), streamHeaders[2].end());
    }
    return file;
  }
};

}  // namespace cms
