// What all recorders of a fleet hold of some cameras.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "fleet/engine_client.h"
#include "fleet/fleet_view.h"
#include "fleet/merged_recordings.h"
#include "fleet/peer_client.h"

namespace tools {

struct FleetHolder {
  std::string recorder;
  std::string state;       // "ok"; "away": it does not live; "late": it lives and does not answer
  std::string problem;     // why it does not
  std::int64_t since = 0;  // seconds since 1970, of one that is away; 0: not known
};

struct FleetSite {
  std::string camera;
  std::uint32_t site = 0;
  std::vector<cms::fleet::HeldPiece> pieces;  // by the token, without overlap
  std::vector<cms::fleet::HeldPiece> held;    // all of them
  std::vector<cms::fleet::AwayHours> missing;
};

struct FleetRecordings {
  std::vector<FleetHolder> holders;
  std::vector<FleetSite> sites;
  bool IsComplete() const;
};

// Of those cameras, or else of all, from one time to another (milliseconds since 1970, `to` is not
// included): the catalogue says who is asked. Throws EngineIsAway and std::runtime_error.
FleetRecordings FindFleetRecordings(cms::fleet::EngineClient& engine, cms::fleet::PeerClient& peers,
                                    const std::vector<std::string>& cameras, std::int64_t from,
                                    std::int64_t to);

// Fetches what the pieces name into a data root of its own, in which it can be played and exported
// as one recorder's recordings: from the last key frame in front of each stretch. Where a recorder
// takes over from another, the one before goes on up to the first key frame of the next. Throws
// std::runtime_error where a holder does not give what it has.
void GatherRecordings(const cms::fleet::FleetView& view, cms::fleet::PeerClient& peers,
                      const FleetRecordings& recordings, const std::string& folder);

}  // namespace tools
