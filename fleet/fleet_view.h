// What the engine's keys say of a fleet: cameras, recorders, who lives and who has which camera.
// docs/fleet.md has the keys and their values.
#pragma once

#include <compare>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/engine_answers.h"

namespace cms::fleet {

inline constexpr char kFleetPrefix[] = "/orvanta/v1/";
inline constexpr unsigned kMostCopies = 4;

// The n-th recording, from 0, of a camera; no recorder has two of one camera.
struct CameraCopy {
  std::string camera;
  unsigned copy = 0;
  auto operator<=>(const CameraCopy&) const = default;
};

struct FleetCamera {
  unsigned site = 0;  // N of its Rec_Site<N>_ files, from 1, the same at all recorders
  std::string name;
  std::string url;
  std::string user;
  std::string secret;  // its password, sealed: see camera_secret.h
  std::string transport = "tcp";
  std::string group;  // whose recorders come first; empty: any
  bool spill = true;  // others may have it when its group has no room
  unsigned weight = 1;
  unsigned copies = 1;
  std::string plan = "always";
  unsigned keepDays = 0;
  bool stopsIsolated = false;  // by a recorder that the engine has not confirmed for long
  bool on = true;
  bool operator==(const FleetCamera&) const = default;
};

struct FleetRecorder {
  std::string group;
  unsigned capacity = 0;  // sum of weights
  bool drain = false;     // takes nothing, and what it has is moved
  bool operator==(const FleetRecorder&) const = default;
};

// A recorder that lives: its key hangs on a lease.
struct FleetMember {
  std::string instance;  // another one with each start
  std::int64_t createRevision = 0;
  std::string url = {};  // where other recorders ask it; empty: nowhere
};

struct FleetClaim {
  std::string recorder;
  std::string was;
  std::string why;        // "new", "dead", "moved"
  std::int64_t time = 0;  // seconds since 1970, for people
  std::int64_t modRevision = 0;
};

// A planned change of a claim; its key hangs on a lease.
struct FleetMove {
  std::string from;
  std::string to;
  std::int64_t claim = 0;  // modRevision of the claim that it is made for
  std::int64_t createRevision = 0;
};

// The holder's word that it records.
struct FleetProof {
  std::string recorder;
  std::int64_t claim = 0;  // modRevision of the claim that it records by
  bool up = false;
};

inline constexpr std::int64_t kMostGenerations = 32'000;  // claim tokens have room for them

struct FleetSettings {
  std::int64_t generation = 0;  // grows with every restored snapshot; 0: there is no fleet
  bool rebalance = true;        // recorders are kept about as full as each other
};

struct FleetView {
  FleetSettings settings;
  std::map<std::string, FleetCamera> cameras;
  std::map<std::string, FleetRecorder> recorders;
  std::map<std::string, FleetMember> members;
  std::map<std::string, std::int64_t> gone;  // when the recorder was seen to die
  std::map<CameraCopy, FleetClaim> claims;
  std::map<CameraCopy, FleetMove> moves;
  std::map<CameraCopy, FleetProof> proofs;
  std::string planner;
  unsigned nextSite = 1;

  // Keys of no meaning here, and values that cannot be read, change nothing.
  void Put(const EngineKey& key);
  void Remove(std::string_view key);

  bool Lives(const std::string& recorder) const { return members.contains(recorder); }
  const FleetClaim* ClaimOf(const CameraCopy& copy) const;
  // Claimed by a recorder that said, for this claim, that it records.
  bool IsProven(const CameraCopy& copy) const;
  // All copies of cameras that are to be recorded.
  std::vector<CameraCopy> Copies() const;
};

std::string CameraKey(std::string_view camera);
std::string RecorderKey(std::string_view recorder);
std::string MemberKey(std::string_view recorder);
std::string GoneKey(std::string_view recorder);
std::string ClaimKey(const CameraCopy& copy);
std::string MoveKey(const CameraCopy& copy);
std::string ProofKey(const CameraCopy& copy);
bool IsProofKey(std::string_view key);
bool IsMoveKey(std::string_view key);
std::optional<CameraCopy> ClaimedBy(std::string_view key);  // nullopt: not a claim's key
std::string FleetKey();
std::string PlannerKey();
std::string NextSiteKey();

std::string ValueOf(const FleetCamera& camera);
std::string ValueOf(const FleetRecorder& recorder);
std::string ValueOf(const FleetMember& member);
std::string ValueOf(const FleetClaim& claim);
std::string ValueOf(const FleetMove& move);
std::string ValueOf(const FleetProof& proof);
std::string ValueOf(const FleetSettings& settings);
std::optional<FleetCamera> ReadCamera(std::string_view value);

// A name of a camera or recorder: 1 to 64 letters, digits, '-', '_' and '.'.
bool IsFleetName(std::string_view name);

}  // namespace cms::fleet
