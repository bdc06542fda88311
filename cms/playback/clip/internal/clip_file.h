// ClipFile: where a muxer writes, for the file that is there when it is whole and not before.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
}

#include <array>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/thread_annotations.h"

namespace cms {

// Writes "<path>.part" in large pieces, on a thread of its own, so that the next frames are read
// meanwhile. Keep renames it to `path`; without Keep it is removed. Throws std::runtime_error with
// the path. What cannot be written is an error of the context's, AVERROR(errno), some pieces later
// or in Keep. One thread at a time.
class ClipFile {
 public:
  explicit ClipFile(const std::string& path);
  ~ClipFile();
  ClipFile(const ClipFile&) = delete;
  ClipFile& operator=(const ClipFile&) = delete;

  // Makes the muxer write here, and read here what it wrote, where it moves that at the end.
  void Attach(AVFormatContext& muxer);
  void Check(int result) const;  // throws of a result below 0
  void Keep();                   // nothing may be written behind it

 private:
  struct FreeContext {
    void operator()(AVIOContext* context) const;
  };

  static constexpr std::size_t kPieces = 8;

  struct Reader;
  AVIOContext* MakeReader();
  int Write(const std::uint8_t* bytes, std::size_t size);
  std::int64_t Seek(std::int64_t offset, int whence);
  int HandOver();
  int WaitUntilWritten();  // 0, or the errno of what failed
  void Run();
  int WritePiece(const std::vector<std::uint8_t>& piece);
  void Reserve(std::uint64_t end);

  const std::string path_;
  const std::string part_;
  FileIo& io_;
  ScopedFile file_;
  std::unique_ptr<AVIOContext, FreeContext> context_;
  bool kept_ = false;

  // A ring: pieces from written_ on wait for the thread, the one at handedOver_ is being filled.
  std::array<std::vector<std::uint8_t>, kPieces> pieces_;
  std::vector<std::uint8_t>* filling_ = &pieces_[0];
  CMSCritical lock_;
  std::condition_variable_any changed_;
  std::uint64_t handedOver_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t written_ CMS_GUARDED_BY(lock_) = 0;
  int error_ CMS_GUARDED_BY(lock_) = 0;
  bool quit_ CMS_GUARDED_BY(lock_) = false;

  // Of the thread, or of the other one while nothing waits.
  std::uint64_t position_ = 0;
  std::uint64_t end_ = 0;  // of what was written
  std::uint64_t reserved_ = 0;
  NamedThread thread_;
};

}  // namespace cms
