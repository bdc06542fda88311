// A recorded file from its close until its writes are known to have succeeded and its record is
// stored.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cms/recording/control_write_file.h"
#include "cms/recording/recording_status.h"
#include "cms/runtime/file_io.h"

namespace cms {

struct LateRecord {
  std::wstring folder;  // as the system writes paths
  std::wstring name;
  std::wstring address;
  std::wstring siteName;
  std::uint16_t port = 0;
  std::int64_t start = 0;  // of the frames' times, seconds since 1970-01-01 UTC
  std::int64_t end = 0;
  bool stored = false;

  std::wstring drvPath;
  std::wstring idxPath;
  std::shared_ptr<WriteStatus> drvStatus;
  std::shared_ptr<WriteStatus> idxStatus;  // null: there is no index
  std::uint64_t begin = 0;                 // where the recording began in the .drv file
  FrameCounts accepted;                    // from there on; in the file, once it has been mended
  bool damaged = false;  // the end of the file has to be cut, or its index made to fit
  bool removed = false;  // nothing was in it
  bool counted = false;  // its failure and its lost bytes are in the recorder's status

  bool IsClosed() const;  // by the queue
  int Error() const;      // errno of its first failed write
  bool NeedsWork() const { return damaged || !stored || Error() != 0; }
};

// Mends the file if a write of it failed, then stores its record. Returns 0 when nothing is left to
// do, else the errno of what failed; EAGAIN while the queue still has the file. Waits for the disk.
int SettleLateRecord(FileIo& io, LateRecord& late);

}  // namespace cms
