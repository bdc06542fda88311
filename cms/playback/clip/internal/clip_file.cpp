#include "cms/playback/clip/internal/clip_file.h"

#include <fcntl.h>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <stdexcept>

namespace cms {
namespace {

constexpr int kBufferSize = 4096;              // of the muxer's small writes
constexpr std::size_t kPieceSize = 256 << 10;  // stays in the cache of a processor
constexpr std::uint64_t kReserveStep = 64 << 20;

}  // namespace

// What was written, from the beginning on.
struct ClipFile::Reader {
  FileIo& io;
  const int handle;
  std::uint64_t position = 0;

  int Read(std::uint8_t* bytes, std::size_t size) {
    const std::size_t got = io.ReadAllAt(handle, bytes, size, position);
    position += got;
    return got != 0 ? static_cast<int>(got) : AVERROR_EOF;
  }
  std::int64_t Seek(std::int64_t offset, int whence) {
    if (whence != SEEK_SET || offset < 0) {
      return AVERROR(EINVAL);
    }
    position = static_cast<std::uint64_t>(offset);
    return offset;
  }
};

void ClipFile::FreeContext::operator()(AVIOContext* context) const {
  av_freep(&context->buffer);
  avio_context_free(&context);
}

ClipFile::ClipFile(const std::string& path)
    : path_(path),
      part_(path + ".part"),
      io_(SystemFileIo()),
      file_(io_, part_, kFileRead | kFileWrite | kFileCreate | kFileTruncate) {
  Check(file_ ? 0 : AVERROR(errno));
  // Bytes to write are const for some releases of the muxer.
  context_.reset(avio_alloc_context(
      static_cast<unsigned char*>(av_malloc(kBufferSize)), kBufferSize, 1, this, nullptr,
      [](void* self, auto* bytes, int size) {
        return static_cast<ClipFile*>(self)->Write(bytes, static_cast<std::size_t>(size));
      },
      [](void* self, std::int64_t offset, int whence) {
        return static_cast<ClipFile*>(self)->Seek(offset, whence);
      }));
  context_->direct = 1;  // large writes go past its buffer
  for (auto& piece : pieces_) {
    piece.reserve(kPieceSize);
  }
  if (!thread_.Start("cms-export", [this] { Run(); })) {
    const int error = errno;
    io_.Remove(part_);
    Check(AVERROR(error));
  }
}

ClipFile::~ClipFile() {
  {
    const ScopeLock guard(lock_);
    quit_ = true;
    changed_.notify_all();
  }
  thread_.Join();
  if (!kept_) {
    io_.Remove(part_);
  }
}

void ClipFile::Attach(AVFormatContext& muxer) {
  muxer.pb = context_.get();
  muxer.opaque = this;
  muxer.io_open = [](AVFormatContext* self, AVIOContext** reader, const char*, int,
                     AVDictionary**) {
    *reader = static_cast<ClipFile*>(self->opaque)->MakeReader();
    return *reader != nullptr ? 0 : AVERROR(ENOMEM);
  };
  muxer.io_close2 = [](AVFormatContext*, AVIOContext* reader) {
    delete static_cast<Reader*>(reader->opaque);
    FreeContext()(reader);
    return 0;
  };
}

AVIOContext* ClipFile::MakeReader() {
  std::unique_ptr<Reader> reader(new Reader{io_, file_.Handle()});
  AVIOContext* const made = avio_alloc_context(
      static_cast<unsigned char*>(av_malloc(kBufferSize)), kBufferSize, 0, reader.get(),
      [](void* self, std::uint8_t* bytes, int size) {
        return static_cast<Reader*>(self)->Read(bytes, static_cast<std::size_t>(size));
      },
      nullptr,
      [](void* self, std::int64_t offset, int whence) {
        return static_cast<Reader*>(self)->Seek(offset, whence);
      });
  if (made != nullptr) {
    static_cast<void>(reader.release());  // io_close2 deletes it
  }
  return made;
}

void ClipFile::Check(int result) const {
  if (result < 0) {
    char why[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(result, why, sizeof(why));
    throw std::runtime_error(path_ + ": " + why);
  }
}

// Room that the file system was asked for beforehand takes it less time to fill. Where it cannot
// tell, or has not as much, it is asked no more.
void ClipFile::Reserve(std::uint64_t end) {
  if (end > reserved_) {
    const std::uint64_t step = std::max(kReserveStep, end - reserved_);
    const bool got =
        fallocate(file_.Handle(), 0, static_cast<off_t>(reserved_), static_cast<off_t>(step)) == 0;
    reserved_ = got ? reserved_ + step : std::numeric_limits<std::uint64_t>::max();
  }
}

void ClipFile::Run() {
  ScopeLock guard(lock_);
  while (true) {
    changed_.wait(
        lock_, [this]() CMS_NO_THREAD_SAFETY_ANALYSIS { return quit_ || written_ != handedOver_; });
    if (quit_) {
      return;
    }
    const auto& piece = pieces_[written_ % kPieces];
    if (error_ == 0) {
      guard.UnLock();
      const int error = WritePiece(piece);
      guard.Lock();
      error_ = error;
    }
    ++written_;
    changed_.notify_all();
  }
}

// 0, or the errno of what failed.
int ClipFile::WritePiece(const std::vector<std::uint8_t>& piece) {
  Reserve(position_ + piece.size());
  if (io_.WriteAll(file_.Handle(), piece.data(), piece.size()) != piece.size()) {
    return errno != 0 ? errno : EIO;
  }
  position_ += piece.size();
  end_ = std::max(end_, position_);
  return 0;
}

// What was filled goes to the thread; another piece is free afterwards.
int ClipFile::HandOver() {
  ScopeLock guard(lock_);
  ++handedOver_;
  changed_.notify_all();
  changed_.wait(
      lock_, [this]() CMS_NO_THREAD_SAFETY_ANALYSIS { return handedOver_ - written_ < kPieces; });
  filling_ = &pieces_[handedOver_ % kPieces];
  filling_->clear();
  return error_;
}

int ClipFile::WaitUntilWritten() {
  if (!filling_->empty()) {
    HandOver();
  }
  ScopeLock guard(lock_);
  changed_.wait(lock_, [this]() CMS_NO_THREAD_SAFETY_ANALYSIS { return handedOver_ == written_; });
  return error_;
}

int ClipFile::Write(const std::uint8_t* bytes, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const std::size_t count = std::min(size - done, kPieceSize - filling_->size());
    filling_->insert(filling_->end(), bytes + done, bytes + done + count);
    done += count;
    if (filling_->size() == kPieceSize) {
      if (const int error = HandOver(); error != 0) {
        return AVERROR(error);
      }
    }
  }
  return static_cast<int>(size);
}

std::int64_t ClipFile::Seek(std::int64_t offset, int whence) {
  if (const int error = WaitUntilWritten(); error != 0) {
    return AVERROR(error);
  }
  if (whence == AVSEEK_SIZE) {
    return static_cast<std::int64_t>(end_);
  }
  const std::int64_t at = io_.Seek(file_.Handle(), offset, whence);
  if (at < 0) {
    return AVERROR(errno);
  }
  position_ = static_cast<std::uint64_t>(at);
  return at;
}

void ClipFile::Keep() {
  avio_flush(context_.get());
  Check(context_->error);
  Check(AVERROR(WaitUntilWritten()));
  const bool whole =
      io_.Truncate(file_.Handle(), end_) == 0 && file_.Close() && io_.Rename(part_, path_) == 0;
  Check(whole ? 0 : AVERROR(errno));
  kept_ = true;
}

}  // namespace cms
