// A .drv file and its .idx file, opened for a recorder.
#pragma once

#include <cstdint>
#include <string>

#include "cms/recording/recording_status.h"
#include "cms/runtime/file_io.h"

namespace cms {

struct RecordingPair {
  int drv = -1;
  int idx = -1;               // -1 when it could not be opened: `idxError` says why
  std::uint64_t drvSize = 0;  // where the recording goes on; 0 for a new file
  int idxError = 0;
  FileStatus drvFile;  // which file the path named when it was opened
};

// Opens or creates both without sharing, positioned at their ends: what is there already is
// continued. An index is made whole records, and emptied when its recording is empty: its records
// would point at nothing. Missing folders are made. 0, or the errno of what failed; nothing is open
// then, and no new file is left behind.
int OpenRecordingPair(FileIo& io, const std::wstring& drvPath, const std::wstring& idxPath,
                      RecordingPair& pair);

// What a failed write left behind.
struct MendedPair {
  bool done = false;  // false: try again later, `error` says why
  int error = 0;
  bool empty = false;            // no frame had reached the disk: both files are removed
  std::int64_t lastSeconds = 0;  // the header time of the last video frame; 0 when unknown
  FrameCounts kept;              // the frames from `counted` on
};

// Cuts a torn frame off the end and makes the index fit. Native paths; nobody has the files open.
// `counted`: an offset.
MendedPair MendRecordingPair(FileIo& io, const std::string& drvPath, const std::string& idxPath,
                             std::uint64_t counted);

}  // namespace cms
