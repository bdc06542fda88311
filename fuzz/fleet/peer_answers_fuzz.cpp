// What another recorder answers: claims, clock and recordings of any text, whose pieces are
// stretches of time that begin before they end.
#include <string>
#include <string_view>

#include "fleet/peer_recordings.h"
#include "fleet/peer_watch.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  for (const cms::fleet::PeerClaim& claim : cms::fleet::ReadPeerClaims(text)) {
    CHECK(claim.recorder.size() < size && claim.copy.camera.size() < size);
  }
  CHECK(cms::fleet::ReadPeerTime(text).value_or(0) >= 0);
  const auto pieces = cms::fleet::ReadPeerRecordings(text, "rec1");
  for (const cms::fleet::HeldPiece& piece : pieces.value_or(std::vector<cms::fleet::HeldPiece>())) {
    CHECK(piece.recorder == "rec1" && piece.from >= 0 && piece.from < piece.to);
  }
  return 0;
}
