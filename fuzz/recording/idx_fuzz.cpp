// Any bytes as the index of any bytes: the rebuilt index has one record for each frame that is to
// be indexed, each points at its frame, and a second rebuild changes nothing.
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>

#include "cms/recording/idx_file.h"
#include "fuzz/support/check.h"

namespace {

std::string Folder() {
  static const std::string folder = [] {
    char name[] = "/dev/shm/idx_fuzz_XXXXXX";
    CHECK(mkdtemp(name) != nullptr);
    static std::string kept;
    kept = name;
    std::atexit([] {
      unlink((kept + "/a.drv").c_str());
      unlink((kept + "/a.idx").c_str());
      rmdir(kept.c_str());
    });
    return kept;
  }();
  return folder;
}

}  // namespace

// The input: the length of the index in two bytes, the index, the recording.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) {
    return 0;
  }
  const std::string bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  const std::size_t idxSize = std::min(bytes.size(), std::size_t{data[0]} << 8 | data[1]);
  const std::string drvPath = Folder() + "/a.drv";
  const std::string idxPath = Folder() + "/a.idx";
  std::ofstream(drvPath, std::ios::binary) << bytes.substr(idxSize);
  std::ofstream(idxPath, std::ios::binary) << bytes.substr(0, idxSize);

  cms::FileIo& io = cms::SystemFileIo();
  const auto foretold = cms::CompareIdx(io, drvPath, idxPath);
  const auto result = cms::RebuildIdx(io, drvPath, idxPath);
  CHECK(result.done && foretold.done);
  CHECK(foretold.changed == result.changed && foretold.added == result.added &&
        foretold.dropped == result.dropped && foretold.records == result.records);
  const cms::ScopedFile drv(io, drvPath, cms::kFileRead);
  const cms::ScopedFile idx(io, idxPath, cms::kFileRead);
  cms::IdxReader reader(io, idx.Handle());
  CHECK(reader.TornBytes() == 0 && reader.Records() == result.records);
  cms::DrvWalker walker(io, drv.Handle());
  while (const auto frame = walker.Next()) {
    if (frame->header.IsAudio() || (result.keyFramesOnly && !frame->header.IsKeyFrame())) {
      continue;
    }
    const auto record = reader.Next();
    CHECK(record && record->offset == frame->offset);
    CHECK(record->milliseconds / 1000 == frame->header.Seconds());
    CHECK(record->frameType == frame->header.FrameType());
  }
  CHECK(!reader.Next());
  // Key frames alone may be all that is left, which then does not tell any more what was indexed.
  const auto again = cms::RebuildIdx(io, drvPath, idxPath);
  CHECK(again.done && (!again.changed || result.keyFramesOnly));
  return 0;
}
