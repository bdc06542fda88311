#include "tools/clip_file.h"

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

namespace tools {
namespace {

constexpr int kBufferSize = 256 << 10;  // stays in the cache of a processor
constexpr std::uint64_t kReserveStep = 64 << 20;

}  // namespace

void ClipFile::FreeContext::operator()(AVIOContext* context) const {
  av_freep(&context->buffer);
  avio_context_free(&context);
}

ClipFile::ClipFile(const std::string& path)
    : path_(path),
      part_(path + ".part"),
      io_(cms::SystemFileIo()),
      file_(io_, part_, cms::kFileWrite | cms::kFileCreate | cms::kFileTruncate) {
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
  context_->min_packet_size = kBufferSize;
}

ClipFile::~ClipFile() {
  if (!kept_) {
    io_.Remove(part_);
  }
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

int ClipFile::Write(const std::uint8_t* bytes, std::size_t size) {
  Reserve(position_ + size);
  if (io_.WriteAll(file_.Handle(), bytes, size) != size) {
    return AVERROR(errno);
  }
  position_ += size;
  end_ = std::max(end_, position_);
  return static_cast<int>(size);
}

std::int64_t ClipFile::Seek(std::int64_t offset, int whence) {
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
  const bool whole =
      io_.Truncate(file_.Handle(), end_) == 0 && file_.Close() && io_.Rename(part_, path_) == 0;
  Check(whole ? 0 : AVERROR(errno));
  kept_ = true;
}

}  // namespace tools
