// Any bytes as a .drv file: the walk ends, every frame that it gives holds, frames do not overlap,
// and every byte is in a frame or skipped. What it found, put together again, gives the same
// frames.
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "cms/recording/drv_walker.h"
#include "fuzz/support/check.h"

namespace {

int MemoryFile(const std::string& bytes) {
  const int handle = memfd_create("drv", MFD_CLOEXEC);
  CHECK(handle >= 0 &&
        write(handle, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
  return handle;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  const int handle = MemoryFile(bytes);
  cms::DrvWalker walker(cms::SystemFileIo(), handle);
  std::string frames;
  std::uint64_t end = 0;
  while (const auto frame = walker.Next()) {
    CHECK(frame->header.Holds() && frame->offset >= end && frame->End() <= size);
    CHECK(frame->payloadOffset + frame->payloadLength == frame->End());
    end = frame->End();
    frames += bytes.substr(frame->offset, end - frame->offset);
  }
  const cms::DrvWalkReport& report = walker.Report();
  CHECK(report.error == 0 && report.frameBytes == frames.size());
  CHECK(report.frameBytes + report.skippedBytes == size);
  CHECK(report.endOfFrames == end && report.tailLength <= report.skippedBytes);
  CHECK(!walker.Next());
  close(handle);

  const int again = MemoryFile(frames);
  cms::DrvWalker second(cms::SystemFileIo(), again);
  while (second.Next()) {
  }
  CHECK(second.Report().frames == report.frames && second.Report().skippedBytes == 0);
  close(again);
  return 0;
}
