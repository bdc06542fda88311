// What is known of a recorded file, from its opening until its record is stored.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cms/recording/internal/recording_file.h"
#include "cms/recording/recording_status.h"
#include "cms/runtime/file_io.h"

namespace cms {

struct FileRecord {
  std::string dataRoot;  // empty: that of the process
  std::wstring front;    // of its path
  std::wstring drvPath;
  std::wstring idxPath;
  RecordedDevice device;
  std::uint64_t begin = 0;  // where the recording began in the .drv file

  // Once it is closed.
  TimeSpan span;                       // of the frames' times
  std::vector<TimeSpan> earlierSpans;  // a record for each
  FrameCounts accepted;                // behind `begin`; those in the file, once it has been mended
  bool damaged = false;  // the end of the file has to be cut, or its index made to fit
  bool removed = false;  // nothing was in it
  bool stored = false;
  bool tried = false;  // storing it: it may be in the list and not in the span

  bool NeedsWork() const { return damaged || !stored; }
};

// Mends a closed file if that is needed, then stores its record, whose end is at least a second
// behind its start: a search looks for spans. Returns 0 when nothing is left to do, EBUSY while
// another thread has the record databases, else the errno of what failed. Waits for the disk.
int SettleFileRecord(FileIo& io, FileRecord& file);

// Makes the record list of a folder if there is none, so that a disk without room for another file
// can still tell what it holds. Nothing while another thread has the record databases.
void PrepareRecordList(const std::wstring& folder);

}  // namespace cms
