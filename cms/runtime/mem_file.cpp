#include "cms/runtime/mem_file.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace cms {

struct CloseStream {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};

}  // namespace cms

namespace {

using Stream = std::unique_ptr<std::FILE, cms::CloseStream>;

constexpr std::int64_t kSpan = 2'097'152;

// Opens and measures; a directory is no file, though the platform opens it for reading.
Stream OpenStream(const wchar_t* path, const wchar_t* mode, std::int64_t& size) {
  if (path == nullptr || mode == nullptr) {
    return nullptr;
  }
  const std::string closeOnExec = cms::Utf8FromWide(mode) + "e";
  Stream stream(std::fopen(cms::NativePath(path).c_str(), closeOnExec.c_str()));
  struct stat status {};
  if (!stream || fstat(fileno(stream.get()), &status) != 0 || S_ISDIR(status.st_mode)) {
    return nullptr;
  }
  size = status.st_size;
  return stream;
}

std::unique_ptr<std::uint8_t[]> Allocate(std::int64_t size) {
  return std::unique_ptr<std::uint8_t[]>(new (std::nothrow)
                                             std::uint8_t[static_cast<std::size_t>(size)]);
}

// size * count, or more than any file has when that overflows.
std::uint64_t Wanted(std::size_t size, std::size_t count) {
  std::uint64_t wanted = 0;
  return __builtin_mul_overflow(size, count, &wanted) ? UINT64_MAX : wanted;
}

// Where a seek leads; false for an unknown origin or a number beyond what can be counted.
bool SeekTarget(long offset, int origin, std::int64_t position, std::int64_t size,
                std::int64_t& out) {
  const std::int64_t base = origin == SEEK_SET ? 0 : origin == SEEK_CUR ? position : size;
  return (origin == SEEK_SET || origin == SEEK_CUR || origin == SEEK_END) &&
         !__builtin_add_overflow(base, offset, &out);
}

}  // namespace

struct _MEMFILE {
  enum Mode { kMemory = 0, kStreaming = 1 };

  Mode mode = kMemory;
  std::int64_t size = 0;
  std::int64_t position = 0;
  std::unique_ptr<std::uint8_t[]> buffer;
  Stream stream;  // streaming mode only
};

struct _MEMPARTIALFILE {
  std::unique_ptr<std::uint8_t[]> buffer;
  Stream stream;
  std::int64_t start = 0;  // the span in the buffer, as offsets in the file
  std::int64_t end = 0;
  std::int64_t position = 0;
  std::int64_t size = 0;
  bool bypass = false;
  bool debug = false;

  void Refill() {
    start = end = position;
    std::clearerr(stream.get());
    if (fseeko(stream.get(), position, SEEK_SET) == 0) {
      end += static_cast<std::int64_t>(
          std::fread(buffer.get(), 1, static_cast<std::size_t>(kSpan), stream.get()));
    }
  }
};

_MEMFILE* fload(const wchar_t* path, const wchar_t* mode) {
  auto file = std::make_unique<_MEMFILE>();
  file->stream = OpenStream(path, mode, file->size);
  if (!file->stream) {
    return nullptr;
  }
  if (file->size < 1 || file->size > kSpan) {
    file->mode = _MEMFILE::kStreaming;
    return file.release();
  }
  file->buffer = Allocate(file->size);
  if (!file->buffer) {
    return nullptr;
  }
  std::rewind(file->stream.get());  // an append mode may begin elsewhere
  file->size = static_cast<std::int64_t>(
      std::fread(file->buffer.get(), 1, static_cast<std::size_t>(file->size), file->stream.get()));
  file->stream.reset();
  return file.release();
}

std::size_t fread(void* buf, std::size_t size, std::size_t count, _MEMFILE* file) {
  if (file->mode == _MEMFILE::kStreaming) {
    return std::fread(buf, size, count, file->stream.get());
  }
  if (file->position < 0 || file->position >= file->size) {
    return 0;
  }
  const auto left = static_cast<std::uint64_t>(file->size - file->position);
  const std::uint64_t bytes = std::min(Wanted(size, count), left);
  std::memcpy(buf, file->buffer.get() + file->position, bytes);
  file->position += static_cast<std::int64_t>(bytes);
  return bytes;
}

int fseek(_MEMFILE* file, long offset, int origin) {
  if (file->mode == _MEMFILE::kStreaming) {
    return std::fseek(file->stream.get(), offset, origin);
  }
  std::int64_t target = 0;
  if (SeekTarget(offset, origin, file->position, file->size, target)) {
    file->position = target;
  }
  return 0;
}

long ftell(_MEMFILE* file) {
  return file->mode == _MEMFILE::kStreaming ? std::ftell(file->stream.get()) : file->position;
}

int feof(_MEMFILE* file) {
  return file->mode == _MEMFILE::kStreaming ? std::feof(file->stream.get())
                                            : file->position >= file->size;
}

int fclose(_MEMFILE* file) {
  const int result = file->stream ? std::fclose(file->stream.release()) : 0;
  delete file;
  return result;
}

_MEMPARTIALFILE* pfload(const wchar_t* path, const wchar_t* mode) {
  auto file = std::make_unique<_MEMPARTIALFILE>();
  file->stream = OpenStream(path, mode, file->size);
  file->buffer = file->stream ? Allocate(kSpan) : nullptr;
  return file->buffer ? file.release() : nullptr;
}

std::size_t fread(void* buf, std::size_t size, std::size_t count, _MEMPARTIALFILE* file) {
  if (file->bypass) {
    return std::fread(buf, size, count, file->stream.get());
  }
  const std::uint64_t wanted = Wanted(size, count);
  if (wanted > static_cast<std::uint64_t>(kSpan) || file->position >= file->size) {
    return 0;
  }
  std::int64_t bytes = std::min(static_cast<std::int64_t>(wanted), file->size - file->position);
  if (file->position < file->start || file->position + bytes > file->end) {
    file->Refill();
    bytes = std::min(bytes, file->end - file->position);  // the file may have shrunk
  }
  std::memcpy(buf, file->buffer.get() + (file->position - file->start),
              static_cast<std::size_t>(bytes));
  file->position += bytes;
  return static_cast<std::size_t>(bytes);
}

int fseek(_MEMPARTIALFILE* file, long offset, int origin) {
  if (file->bypass) {
    return std::fseek(file->stream.get(), offset, origin);
  }
  std::int64_t target = 0;
  if (!SeekTarget(offset, origin, file->position, file->size, target) || target < 0) {
    return -1;
  }
  file->position = target;
  return 0;
}

long ftell(_MEMPARTIALFILE* file) {
  return file->bypass ? std::ftell(file->stream.get()) : file->position;
}

int feof(_MEMPARTIALFILE* file) {
  return file->bypass ? std::feof(file->stream.get()) : file->position >= file->size;
}

int fclose(_MEMPARTIALFILE* file) {
  const int result = std::fclose(file->stream.release());
  delete file;
  return result;
}

void fbypass(_MEMPARTIALFILE* file, int on) {
  if (file->bypass == (on != 0)) {
    return;
  }
  file->bypass = on != 0;
  if (file->bypass) {
    std::clearerr(file->stream.get());
    fseeko(file->stream.get(), file->position, SEEK_SET);
  } else {
    file->position = std::max(0L, std::ftell(file->stream.get()));
    file->Refill();
  }
}

void fdebug(_MEMPARTIALFILE* file, int on) {
  file->debug = on != 0;
}
