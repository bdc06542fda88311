// What another recorder answers of its recordings.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/merged_recordings.h"

namespace cms::fleet {

// The pieces of an answer of /auth/recordings; a stretch that two claims cover becomes two.
// std::nullopt for what cannot be read. Foreign bytes.
std::optional<std::vector<HeldPiece>> ReadPeerRecordings(std::string_view answer,
                                                         const std::string& recorder);

}  // namespace cms::fleet
