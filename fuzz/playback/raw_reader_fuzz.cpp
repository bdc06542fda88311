// Any bytes as bare video: its parser gets through, and the reader keeps what reader_checks.h asks.
#include <string>

#include "cms/playback/internal/raw_data_reader.h"
#include "fuzz/playback/reader_checks.h"
#include "fuzz/support/work_folder.h"

// The input: the rate, and the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 1) {
    return 0;
  }
  const fuzz::WorkFolder work;
  fuzz::Put("a.264", std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  CPlaybackRAWDataReader reader(cms::SystemFileIo(), L"a.264", data[0] / 4.0, 0);
  std::string error;
  if (!reader.Open(error)) {
    CHECK(!error.empty());
    return 0;
  }
  fuzz::CheckWalk(reader, size);
  return 0;
}
