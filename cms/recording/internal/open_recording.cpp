#include "cms/recording/internal/open_recording.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/recording/drv_format.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/write_out.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {

OpenRecording::OpenRecording(const RecordingFile& file, std::int64_t time) {
  const std::wstring stem = file.front + RecordingStamp(time);
  record_.dataRoot = file.dataRoot;
  record_.front = file.front;
  record_.drvPath = stem + L".drv";
  record_.idxPath = stem + L".idx";
  record_.device = file.device;
}

int OpenRecording::Open() {
  if (Utf16Length(RecordedPath(record_.drvPath, record_.dataRoot)) > kLongestRecordedPath) {
    return ENAMETOOLONG;
  }
  const int error = OpenRecordingPair(CurrentFileIo(), record_.drvPath, record_.idxPath, pair_);
  size_ = pair_.drvSize;
  fresh_ = size_ == 0;
  return error;
}

int OpenRecording::Begin(std::span<const std::uint8_t> headers) {
  FileIo& io = CurrentFileIo();
  if (fresh_ && !headers.empty()) {
    std::uint32_t written = 0;
    const int error = WriteOut(io, pair_.drv, headers.data(),
                               static_cast<std::uint32_t>(headers.size()), written);
    if (error != 0) {
      io.Remove(NativePath(record_.idxPath));
      io.Remove(NativePath(record_.drvPath));
      GiveUp();
      return error;
    }
    size_ = written;
  }
  record_.begin = size_;
  return 0;
}

void OpenRecording::GiveUp() {
  for (const int handle : {pair_.drv, pair_.idx}) {
    if (handle >= 0) {
      CurrentFileIo().Close(handle);
    }
  }
  pair_ = {};
}

void OpenRecording::AddPart(const std::shared_ptr<RecordingFile>& part) {
  part->drvPath = record_.drvPath;
  part->begin = size_;
  parts_.push_back(part);
}

int OpenRecording::Write(RecordingPart part, std::span<std::uint8_t> bytes,
                         std::uint32_t& written) {
  written = 0;
  const bool data = part == RecordingPart::kDrv;
  const int handle = data ? pair_.drv : pair_.idx;
  if (handle < 0 || error_ != 0) {
    return 0;
  }
  if (data && size_ + bytes.size() > kLargestFile) {
    return Fail(EFBIG);
  }
  if (const std::uint64_t begin = parts_.back()->begin; !data && begin != 0) {
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(DrvIdx)) {
      DrvIdx record;
      std::memcpy(&record, bytes.data() + at, sizeof record);
      record.offset = static_cast<std::uint32_t>(record.offset + begin);
      std::memcpy(bytes.data() + at, &record, sizeof record);
    }
  }
  const int error = WriteOut(CurrentFileIo(), handle, bytes.data(),
                             static_cast<std::uint32_t>(bytes.size()), written);
  size_ += data ? written : 0;
  return error != 0 ? Fail(error) : 0;
}

// Nothing is written behind a hole: what follows is refused until the file is closed.
int OpenRecording::Fail(int error) {
  error_ = error;
  for (const auto& part : parts_) {
    int none = 0;
    part->error.compare_exchange_strong(none, error, std::memory_order_release);
  }
  return error;
}

int OpenRecording::Look() {
  if (!TakesFrames()) {
    return 0;
  }
  FileStatus now;
  const bool there = CurrentFileIo().Status(NativePath(record_.drvPath), now);
  FileStatus& opened = pair_.drvFile;
  if (there && opened.inode == 0) {  // it could not be asked when it was opened
    opened = now;
  }
  const bool gone = there ? now.inode != opened.inode || now.device != opened.device
                          : errno == ENOENT || errno == ENOTDIR;
  return gone ? Fail(ENOENT) : 0;
}

OpenRecording::End OpenRecording::Close(bool mend) {
  SumUp();
  End end;
  end.wasOpen = IsOpen();
  end.error = IsOpen() ? error_ : parts_.front()->openError;
  FileIo& io = CurrentFileIo();
  const bool empty = record_.accepted.frames == 0 && end.error == 0;
  if (empty && fresh_) {  // while it is locked: nobody else may have begun to record into it
    io.Remove(NativePath(record_.idxPath));
    io.Remove(NativePath(record_.drvPath));
  }
  for (const int handle : {pair_.drv, pair_.idx}) {
    // A network file tells only now that it could not keep what it took.
    if (handle >= 0 && io.Close(handle) != 0 && end.error == 0) {
      end.error = errno;
    }
  }
  end.owed = end.wasOpen && (mend || !empty);
  end.record = std::move(record_);
  end.record.damaged = mend || end.error != 0 || pair_.idx < 0;
  *this = {};
  return end;
}

// What goes on within a moment is one span, also when it was meant for another file.
void OpenRecording::AddSpans(const RecordingFile& part) {
  std::vector<TimeSpan> spans = part.earlierSpans;
  spans.push_back(part.span);
  for (const TimeSpan& span : spans) {
    if (span.start == 0) {
      continue;
    }
    if (record_.span.start != 0 && !record_.span.IsNear(span.start)) {
      record_.earlierSpans.push_back(std::exchange(record_.span, {}));
    }
    TimeSpan& whole = record_.span;
    whole.start = whole.start == 0 ? span.start : std::min(whole.start, span.start);
    whole.end = std::max(whole.end, span.end);
  }
}

void OpenRecording::SumUp() {
  for (const auto& part : parts_) {
    AddSpans(*part);
    record_.accepted.frames += part->accepted.frames;
    record_.accepted.keyFrames += part->accepted.keyFrames;
    record_.accepted.bytes += part->accepted.bytes;
  }
}

}  // namespace cms
