// ClipFile: where a muxer writes, for the file that is there when it is whole and not before.
#pragma once

extern "C" {
#include <libavformat/avio.h>
}

#include <cstdint>
#include <memory>
#include <string>

#include "cms/runtime/file_io.h"

namespace tools {

// Writes "<path>.part" in large pieces, which Keep renames to `path`; without Keep it is removed.
// Throws std::runtime_error with the path. What cannot be written is an error of the context's,
// AVERROR(errno). One thread at a time.
class ClipFile {
 public:
  explicit ClipFile(const std::string& path);
  ~ClipFile();
  ClipFile(const ClipFile&) = delete;
  ClipFile& operator=(const ClipFile&) = delete;

  AVIOContext* Context() { return context_.get(); }  // owned by this
  void Check(int result) const;                      // throws of a result below 0
  void Keep();                                       // nothing may be written behind it

 private:
  struct FreeContext {
    void operator()(AVIOContext* context) const;
  };

  int Write(const std::uint8_t* bytes, std::size_t size);
  std::int64_t Seek(std::int64_t offset, int whence);
  void Reserve(std::uint64_t end);

  const std::string path_;
  const std::string part_;
  cms::FileIo& io_;
  cms::ScopedFile file_;
  std::unique_ptr<AVIOContext, FreeContext> context_;
  std::uint64_t position_ = 0;
  std::uint64_t end_ = 0;  // of what was written
  std::uint64_t reserved_ = 0;
  bool kept_ = false;
};

}  // namespace tools
