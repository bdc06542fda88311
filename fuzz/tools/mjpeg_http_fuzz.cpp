// An MJPEG camera's answer over HTTP, any bytes in any segments: every frame lies within what
// arrived, and the parser comes to an end after each segment.
#include <algorithm>

#include "fuzz/support/check.h"
#include "tools/support/mjpeg_http_client.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::size_t segment = 1 + data[0];
  tools::MjpegHttpClient client;
  CRawBuffer buffer(65536, 65536);
  for (std::size_t at = 1; at < size; at += segment) {
    const auto length = static_cast<long>(std::min(segment, size - at));
    if (buffer.Append(data + at, length) == 0) {
      return 0;
    }
    int more = 1;
    // Each step takes bytes or changes what is expected, so this many are more than enough.
    for (std::size_t steps = 0; more == 1; ++steps) {
      CHECK(steps < 4 * size + 8);
      int isAudio = 0, frameLength = 0, videoFlag = 0, extra = 0;
      if (client.ParseStreamFrame(&buffer, &isAudio, &frameLength, &videoFlag, &extra, &more) !=
          0) {
        CHECK(isAudio == 0 && frameLength > 0 && frameLength <= buffer.Length());
        buffer.Erase(0, frameLength);
      }
    }
  }
  return 0;
}
