// Rebuilding an index:
//  1. The data file is opened without sharing, so that no recorder appends meanwhile.
//  2. Which frames the recorder indexes is read off the old index: all video frames when one of its
//     records is of another type than key frame; key frames alone when other frames lie between its
//     first and its last record and have none; all of them when it does not tell.
//  3. The walk and the old index are merged in the order of offsets, in bounded memory. A record is
//     kept when it points at a frame of its type and second. A frame without one gets one: the
//     channel of its stream's records so far, the header's second, one millisecond after the record
//     before it within that second.
//  4. As long as every record is kept nothing is written. From the first difference on the new
//  index
//     grows in a file of its own beside the old one, which it replaces, synced, in one step.
//     Whatever fails before leaves the old index as it was.
#include "cms/recording/idx_file.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>

#include "cms/recording/internal/error_of.h"

namespace cms {
namespace {

constexpr std::size_t kBufferedRecords = 2048;
constexpr std::uint64_t kLargestOffset = UINT32_MAX;
constexpr char kNewSuffix[] = ".new";

}  // namespace

IdxReader::IdxReader(FileIo& io, int handle) : io_(io), handle_(handle), buffer_(kBufferedRecords) {
  const std::int64_t size = io_.Size(handle_);
  if (size < 0) {
    error_ = ErrorOf(errno);
  } else {
    size_ = static_cast<std::uint64_t>(size);
  }
}

std::optional<DrvIdx> IdxReader::Next() {
  if (taken_ == filled_) {
    const std::uint64_t left = Records() - offset_ / sizeof(DrvIdx);
    const std::size_t wanted = std::min<std::uint64_t>(buffer_.size(), left) * sizeof(DrvIdx);
    if (error_ != 0 || wanted == 0) {
      return std::nullopt;
    }
    if (io_.ReadAllAt(handle_, buffer_.data(), wanted, offset_) < wanted) {
      error_ = ErrorOf(errno);
      return std::nullopt;
    }
    offset_ += wanted;
    taken_ = 0;
    filled_ = wanted / sizeof(DrvIdx);
  }
  return buffer_[taken_++];
}

namespace {

// The old index as the merge sees it: records whose offsets grow. One that a smaller offset follows
// is an outlier and must not hide the rest.
class OldIndex {
 public:
  OldIndex(FileIo& io, const std::string& path) : file_(io, path, kFileRead) {
    if (file_) {
      reader_ = std::make_unique<IdxReader>(io, file_.Handle());
      next_ = Read();
      Advance();
    } else if (errno != ENOENT) {
      error_ = ErrorOf(errno);
    }
  }

  const std::optional<DrvIdx>& Current() const { return current_; }
  std::uint64_t Position() const { return read_ - (next_ ? 2 : 1); }  // of the current record
  void Advance() {
    do {
      current_ = next_;
      next_ = current_ ? Read() : std::nullopt;
    } while (current_ && next_ && next_->offset < current_->offset);
  }

  std::uint64_t Records() const { return reader_ ? reader_->Records() : 0; }
  std::uint64_t TornBytes() const { return reader_ ? reader_->TornBytes() : 0; }
  int Error() const { return reader_ ? reader_->Error() : error_; }
  int Handle() const { return file_.Handle(); }

 private:
  std::optional<DrvIdx> Read() {
    auto record = reader_->Next();
    read_ += record ? 1 : 0;
    return record;
  }

  ScopedFile file_;
  std::unique_ptr<IdxReader> reader_;
  std::uint64_t read_ = 0;
  std::optional<DrvIdx> current_;
  std::optional<DrvIdx> next_;
  int error_ = 0;
};

// The new index. It holds its file without sharing, so that two repairs do not mix theirs. Without
// a path it is only compared with the old one.
class NewIndex {
 public:
  NewIndex(FileIo& io, std::string path) : io_(io), path_(std::move(path)) {}
  ~NewIndex() {
    if (file_) {
      file_->Close();
      io_.Remove(path_);
    }
  }
  NewIndex(const NewIndex&) = delete;
  NewIndex& operator=(const NewIndex&) = delete;

  bool IsBegun() const { return begun_; }

  // Begins with the first `records` records of the old index.
  bool Begin(int oldHandle, std::uint64_t records) {
    begun_ = true;
    if (path_.empty()) {
      return true;
    }
    auto file = std::make_unique<ScopedFile>(
        io_, path_, kFileReadWrite | kFileCreate | kFileExclusive | kFileTruncate);
    if (!*file) {
      return false;
    }
    file_ = std::move(file);
    for (std::uint64_t at = 0; at < records;) {
      const std::size_t count = std::min<std::uint64_t>(records - at, kBufferedRecords);
      buffer_.resize(count);
      if (io_.ReadAllAt(oldHandle, buffer_.data(), count * sizeof(DrvIdx), at * sizeof(DrvIdx)) <
              count * sizeof(DrvIdx) ||
          !Flush()) {
        return false;
      }
      at += count;
    }
    return true;
  }

  bool Add(const DrvIdx& record) {
    if (path_.empty()) {
      return true;
    }
    buffer_.push_back(record);
    return buffer_.size() < kBufferedRecords || Flush();
  }

  bool Replace(const std::string& idxPath) {
    if (!Flush() || io_.Sync(file_->Handle()) != 0 || !file_->Close() ||
        io_.Rename(path_, idxPath) != 0) {
      return false;
    }
    file_.reset();  // nothing is left to remove
    return io_.SyncFolder(NativeFolderOf(idxPath)) == 0;
  }

 private:
  bool Flush() {
    const std::size_t size = buffer_.size() * sizeof(DrvIdx);
    const bool written = io_.WriteAll(file_->Handle(), buffer_.data(), size) == size;
    buffer_.clear();
    return written;
  }

  FileIo& io_;
  const std::string path_;
  bool begun_ = false;
  std::unique_ptr<ScopedFile> file_;
  std::vector<DrvIdx> buffer_;
};

bool PointsAt(const DrvIdx& record, const DrvFrame& frame) {
  return record.offset == frame.offset && record.frameType == frame.header.FrameType() &&
         record.milliseconds / 1000 == frame.header.Seconds();
}

bool IndexesKeyFramesOnly(FileIo& io, int drv, const std::string& idxPath) {
  const ScopedFile old(io, idxPath, kFileRead);
  if (!old) {
    return false;
  }
  IdxReader reader(io, old.Handle());
  std::uint32_t first = UINT32_MAX;
  std::uint32_t last = 0;
  while (const auto record = reader.Next()) {
    if (record->frameType != kKeyFrame) {
      return false;
    }
    first = std::min(first, record->offset);
    last = std::max(last, record->offset);
  }
  if (first >= last) {
    return false;
  }
  DrvWalker walker(io, drv);
  walker.Seek(first);
  while (const auto frame = walker.Next()) {
    if (frame->offset >= last) {
      break;
    }
    if (!frame->header.IsAudio() && !frame->header.IsKeyFrame()) {
      return true;
    }
  }
  return false;
}

// Records for frames that have none, after the manner of those that were kept.
class RecordMaker {
 public:
  void Follow(const DrvIdx& record, const DrvFrame& frame) {
    channels_[frame.header.StreamNumber()] = record.channel;
    lastChannel_ = record.channel;
    lastMilliseconds_ = record.milliseconds;
  }

  DrvIdx Make(const DrvFrame& frame) {
    const std::uint64_t begin = std::uint64_t{frame.header.Seconds()} * 1000;
    DrvIdx record{};
    record.channel = channels_[frame.header.StreamNumber()].value_or(lastChannel_);
    record.offset = static_cast<std::uint32_t>(frame.offset);
    const std::uint64_t end = begin + 999;
    record.milliseconds = lastMilliseconds_ >= begin && lastMilliseconds_ <= end
                              ? std::min(lastMilliseconds_ + 1, end)
                              : begin;
    record.frameType = frame.header.FrameType();
    lastMilliseconds_ = record.milliseconds;
    return record;
  }

 private:
  std::array<std::optional<std::uint32_t>, 4> channels_;  // by stream number
  std::uint32_t lastChannel_ = 0;
  std::uint64_t lastMilliseconds_ = 0;
};

enum class IdxAction { kCompare, kRebuild };

IdxRebuild Merge(FileIo& io, const std::string& drvPath, const std::string& idxPath,
                 IdxAction action) {
  const bool rebuild = action == IdxAction::kRebuild;
  IdxRebuild result;
  const auto failed = [&result](int error) {
    result.error = ErrorOf(error);
    return result;
  };
  const ScopedFile drv(io, drvPath, rebuild ? kFileRead | kFileExclusive : unsigned{kFileRead});
  if (!drv) {
    return failed(errno);
  }
  result.keyFramesOnly = IndexesKeyFramesOnly(io, drv.Handle(), idxPath);
  OldIndex old(io, idxPath);
  if (old.Error() != 0) {
    return failed(old.Error());
  }
  NewIndex fresh(io, rebuild ? idxPath + kNewSuffix : std::string());
  RecordMaker maker;
  DrvWalker walker(io, drv.Handle());
  std::uint64_t kept = 0;
  // While nothing differs, the records kept are the first ones of the old index.
  const auto differs = [&] { return fresh.IsBegun() || fresh.Begin(old.Handle(), kept); };
  while (const auto frame = walker.Next()) {
    if (frame->header.IsAudio() || (result.keyFramesOnly && !frame->header.IsKeyFrame())) {
      continue;
    }
    if (frame->offset > kLargestOffset) {
      ++result.beyond;
      continue;
    }
    while (old.Current() &&
           (old.Current()->offset < frame->offset ||
            (old.Current()->offset == frame->offset && !PointsAt(*old.Current(), *frame)))) {
      old.Advance();
    }
    DrvIdx record{};
    if (old.Current() && old.Current()->offset == frame->offset) {
      if (old.Position() != kept && !differs()) {
        return failed(errno);
      }
      record = *old.Current();
      old.Advance();
      maker.Follow(record, *frame);
      result.behind = 0;
    } else {
      if (!differs()) {
        return failed(errno);
      }
      record = maker.Make(*frame);
      ++result.added;
      ++result.behind;
    }
    if (!fresh.IsBegun()) {
      ++kept;
    } else if (!fresh.Add(record)) {
      return failed(errno);
    }
    ++result.records;
  }
  result.walk = walker.Report();
  if (result.walk.error != 0 || old.Error() != 0) {
    return failed(result.walk.error != 0 ? result.walk.error : old.Error());
  }
  result.dropped = old.Records() - (result.records - result.added);
  result.tornBytes = old.TornBytes();
  if (!fresh.IsBegun() && (result.dropped != 0 || result.tornBytes != 0) && !differs()) {
    return failed(errno);
  }
  result.changed = fresh.IsBegun();
  if (rebuild && result.changed && !fresh.Replace(idxPath)) {
    return failed(errno);
  }
  result.done = true;
  return result;
}

}  // namespace

IdxRebuild RebuildIdx(FileIo& io, const std::string& drvPath, const std::string& idxPath) {
  return Merge(io, drvPath, idxPath, IdxAction::kRebuild);
}

IdxRebuild CompareIdx(FileIo& io, const std::string& drvPath, const std::string& idxPath) {
  return Merge(io, drvPath, idxPath, IdxAction::kCompare);
}

TailCut CutTornTail(FileIo& io, const std::string& drvPath) {
  TailCut result;
  const auto failed = [&result](int error) {
    result.error = ErrorOf(error);
    return result;
  };
  ScopedFile drv(io, drvPath, kFileReadWrite | kFileExclusive);
  if (!drv) {
    return failed(errno);
  }
  DrvWalker walker(io, drv.Handle());
  while (walker.Next()) {
  }
  const DrvWalkReport& walk = walker.Report();
  if (walk.error != 0) {
    return failed(walk.error);
  }
  result.tail = walk.tail;
  if (walk.tail == DrvTail::kNone) {
    result.done = true;
    return result;
  }
  // A few bytes of no recording at all are no torn header.
  if (walk.tail == DrvTail::kForeign ||
      (walk.tail == DrvTail::kPartialHeader && walk.frames == 0)) {
    return result;
  }
  if (io.Truncate(drv.Handle(), walk.fileSize - walk.tailLength) != 0 ||
      io.Sync(drv.Handle()) != 0 || !drv.Close()) {
    return failed(errno);
  }
  result.bytes = walk.tailLength;
  result.done = true;
  return result;
}

}  // namespace cms
