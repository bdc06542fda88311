// OpenRecording, a .drv file and its .idx file while a recorder's disk thread writes into them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "cms/recording/internal/file_record.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/internal/recording_pair.h"

namespace cms {

enum class RecordingPart { kDrv, kIdx };

// Open, Begin, then parts and their bytes in turns, Close. One without an open pair takes parts as
// well: their frames are lost. Of the disk thread alone; members wait for the disk.
class OpenRecording {
 public:
  static constexpr std::uint64_t kLargestFile = UINT32_MAX;  // an index record's offset: 32 bits

  OpenRecording() = default;
  OpenRecording(const RecordingFile& file, std::int64_t time);  // so named, not open yet
  OpenRecording(OpenRecording&&) = default;
  OpenRecording& operator=(OpenRecording&&) = default;

  // What was there is continued. 0, or the errno of what failed; nothing is open then.
  int Open();
  int Begin(std::span<const std::uint8_t> headers);  // likewise; headers begin a new file only
  void GiveUp();                                     // closes what Open opened, as it was

  const FileRecord& Record() const { return record_; }
  bool IsOpen() const { return pair_.drv >= 0; }
  bool TakesFrames() const { return IsOpen() && error_ == 0; }
  bool IsInUse() const { return !parts_.empty(); }
  int IdxError() const { return pair_.idxError; }
  std::uint64_t Size() const { return size_; }  // of the .drv file

  // The recording that goes on here from now on; tells it where.
  void AddPart(const std::shared_ptr<RecordingFile>& part);

  // Bytes of the last part, whose index records count from where its frames begin. Behind a failure
  // nothing is written. 0, or the errno of a new failure.
  int Write(RecordingPart part, std::span<std::uint8_t> bytes, std::uint32_t& written);

  // ENOENT when the file is not where it was any more: a new failure.
  int Look();

  // How it ended. A file that was made and got no frame is removed.
  struct End {
    FileRecord record;
    int error = 0;      // errno of the first failure
    bool owed = false;  // it is to be mended or stored
    bool wasOpen = false;
  };
  // `mend`: its end is known to be damaged. Leaves one that is not open.
  End Close(bool mend);

 private:
  int Fail(int error);
  void AddSpans(const RecordingFile& part);
  void SumUp();

  RecordingPair pair_;
  FileRecord record_;
  std::uint64_t size_ = 0;
  bool fresh_ = false;  // made for this
  int error_ = 0;       // of the first write that failed
  // What goes into it: what it was opened for, and those that could not be opened since.
  std::vector<std::shared_ptr<RecordingFile>> parts_;
};

}  // namespace cms
