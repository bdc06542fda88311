// An MJPEG camera's answer over HTTP, any bytes in any segments: every part lies within what
// arrived, and the reader comes to an end after each segment.
#include <algorithm>

#include "cms/streaming/internal/multipart_reader.h"
#include "fuzz/support/check.h"

using Step = cms::MultipartReader::Step;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t segment = 1 + data[0];
  cms::MultipartReader reader(65536);
  CRawBuffer buffer(65536, 65536);
  for (std::size_t at = 1; at < size; at += segment) {
    const auto length = static_cast<long>(std::min(segment, size - at));
    if (buffer.Append(data + at, length) == 0) {
      return 0;
    }
    // Each step takes bytes or changes what is expected, so this many are more than enough.
    std::size_t steps = 0;
    for (Step step = reader.Next(buffer); step != Step::kWait; step = reader.Next(buffer)) {
      CHECK(++steps < 4 * size + 8);
      if (step == Step::kPart) {
        CHECK(reader.PartLength() > 0 && reader.PartLength() <= buffer.Length());
        buffer.Erase(0, reader.PartLength());
      }
    }
  }
  return 0;
}
