// Who is to have which camera. Pure functions: recorders that see the same get the same.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fleet/fleet_view.h"

namespace cms::fleet {

struct PlannedMove {
  CameraCopy copy;
  std::string from;
  std::string to;
  bool operator==(const PlannedMove&) const = default;
};

// For each copy of a camera that no living recorder has, those that may take it, the best one
// first; none: there is no room. The first ones together keep within everybody's capacity, two
// copies of a camera go to two recorders, and recorders of its group come before others.
std::map<CameraCopy, std::vector<std::string>> PlanClaims(const FleetView& view);

// One recorder's part of that plan, which is all that it needs of it.
struct PlannedPlace {
  std::string first;                // the best one; empty: there is no room
  std::optional<std::size_t> rank;  // its own, 0 for the best one; nullopt: it may not take it
};
std::map<CameraCopy, PlannedPlace> PlanClaimsOf(const FleetView& view, const std::string& recorder);

// Moves away from recorders that are drained, then back into the camera's group, then, only with
// `rebalance`, from the fullest to the emptiest; at most `most`, and none of copies that move
// already. Only recorders of `settled` are moved to, except for drains.
std::vector<PlannedMove> PlanMoves(const FleetView& view, const std::vector<std::string>& settled,
                                   std::size_t most, bool rebalance);

// The sum of the weights that each living recorder has.
std::map<std::string, unsigned> LoadsOf(const FleetView& view);

// The most, in weights, that would have no place if one living recorder were dead; 0: the fleet can
// lose any one.
unsigned MissingWithoutOne(const FleetView& view);

}  // namespace cms::fleet
