// The answer to a tunnel's GET: however it is cut into reads, head and rest are the same, and no
// byte behind the head is lost.
#include <string>

#include "cms/streaming/internal/rtsp_tunnel.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return 0;
  }
  const std::size_t step = data[0] % 16 + 1u;
  const std::span<const std::uint8_t> bytes(data + 1, size - 1);
  cms::TunnelAnswer whole;
  const auto rest = whole.Take(bytes);
  cms::TunnelAnswer pieces;
  std::string behind;
  for (std::size_t at = 0; at < bytes.size(); at += step) {
    const auto more = pieces.Take(bytes.subspan(at, std::min(step, bytes.size() - at)));
    behind.append(reinterpret_cast<const char*>(more.data()), more.size());
  }
  CHECK(whole.IsEnded() == pieces.IsEnded());
  CHECK(whole.Head() == pieces.Head());
  CHECK(whole.Status() == pieces.Status());
  CHECK(behind == std::string(reinterpret_cast<const char*>(rest.data()), rest.size()));
  return 0;
}
