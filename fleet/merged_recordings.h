// One camera's recordings at several recorders as one: who is asked for which minute, and what is
// missing. Pure functions; times are milliseconds since 1970, `to` is not included.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "fleet/day_record.h"

namespace cms::fleet {

// What a recorder holds in one file, by one claim.
struct HeldPiece {
  std::string recorder;
  std::string file;
  std::int64_t from = 0;
  std::int64_t to = 0;
  ClaimToken token = 0;
  bool operator==(const HeldPiece&) const = default;
};

// Hours that the catalogue knows of a recorder that does not answer.
struct AwayHours {
  std::string recorder;
  std::int64_t from = 0;
  std::int64_t to = 0;
};

// In the order of time and without overlap: of several holders of a moment the one with the highest
// token, then the first by name.
std::vector<HeldPiece> MergePieces(const std::vector<HeldPiece>& pieces, std::int64_t from,
                                   std::int64_t to);

// What of those hours, within the window, nobody else holds; stretches shorter than a second are
// seams.
std::vector<AwayHours> MissingOf(const std::vector<AwayHours>& away,
                                 const std::vector<HeldPiece>& merged, std::int64_t from,
                                 std::int64_t to);

}  // namespace cms::fleet
