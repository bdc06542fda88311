// The folders that hold a data folder's recordings.
#pragma once

#include <string>
#include <vector>

namespace tools {

struct RecordingFolder {
  std::wstring path;  // as the system writes paths, without a separator behind it
  bool listed =
      true;  // false: it lies in DIR/recordings, but no entry of the folder list leads there
};

// What entries of the folder list begin with that are made for DIR/recordings; relative, so that
// DIR can be moved.
inline constexpr wchar_t kRecordings[] = L"..\\recordings";

// Those of the folder list's entries (each is a folder of recording folders, or one itself), in
// their order, then those in DIR/recordings that no entry leads to. Without a data root that of the
// process counts. Folders that cannot be read are left out.
std::vector<RecordingFolder> FindRecordingFolders(const std::string& root = {});

}  // namespace tools
