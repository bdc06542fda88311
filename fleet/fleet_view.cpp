#include "fleet/fleet_view.h"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace cms::fleet {
namespace {

using nlohmann::json;
using nlohmann::ordered_json;

constexpr std::size_t kLongestName = 64;
constexpr char kCamera[] = "camera/";
constexpr char kRecorder[] = "recorder/";
constexpr char kMember[] = "member/";
constexpr char kGone[] = "gone/";
constexpr char kClaim[] = "claim/";
constexpr char kMove[] = "move/";
constexpr char kProof[] = "proof/";

std::string Key(std::string_view kind, std::string_view name) {
  return kFleetPrefix + std::string(kind) + std::string(name);
}

std::string CopyKey(std::string_view kind, const CameraCopy& copy) {
  return Key(kind, copy.camera + "/" + std::to_string(copy.copy));
}

std::string Text(const ordered_json& value) {
  return value.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

// Values of keys, which other versions and people write as well.
class Fields {
 public:
  explicit Fields(std::string_view text) : object_(json::parse(text, nullptr, false)) {}
  bool AreRead() const { return object_.is_object(); }

  std::string Text(const char* name, const std::string& absent = "") const {
    const auto found = object_.find(name);
    return found != object_.end() && found->is_string() ? found->get<std::string>() : absent;
  }
  bool Flag(const char* name, bool absent) const {
    const auto found = object_.find(name);
    return found != object_.end() && found->is_boolean() ? found->get<bool>() : absent;
  }
  std::int64_t Number(const char* name, std::int64_t absent, std::int64_t lowest,
                      std::int64_t highest) const {
    const auto found = object_.find(name);
    return found != object_.end() && found->is_number_integer()
               ? std::clamp(found->get<std::int64_t>(), lowest, highest)
               : absent;
  }
  unsigned Count(const char* name, unsigned absent, unsigned lowest = 0,
                 unsigned highest = 1'000'000) const {
    return static_cast<unsigned>(Number(name, absent, lowest, highest));
  }
  std::int64_t Whole(const char* name) const { return Number(name, 0, 0, INT64_MAX); }

 private:
  const json object_;
};

std::optional<CameraCopy> CopyOf(std::string_view name) {
  const std::size_t slash = name.find('/');
  if (slash == std::string_view::npos || !IsFleetName(name.substr(0, slash))) {
    return std::nullopt;
  }
  CameraCopy copy{std::string(name.substr(0, slash)), 0};
  const char* end = name.data() + name.size();
  const auto [stop, error] = std::from_chars(name.data() + slash + 1, end, copy.copy);
  return error == std::errc() && stop == end && copy.copy < kMostCopies ? std::optional(copy)
                                                                        : std::nullopt;
}

// The rest of a key of that kind.
std::optional<std::string_view> NameIn(std::string_view key, std::string_view kind) {
  if (!key.starts_with(kFleetPrefix)) {
    return std::nullopt;
  }
  key.remove_prefix(std::string_view(kFleetPrefix).size());
  return key.starts_with(kind) ? std::optional(key.substr(kind.size())) : std::nullopt;
}

std::optional<std::string> RecorderIn(std::string_view key, std::string_view kind) {
  const auto name = NameIn(key, kind);
  return name && IsFleetName(*name) ? std::optional(std::string(*name)) : std::nullopt;
}

std::optional<CameraCopy> CopyIn(std::string_view key, std::string_view kind) {
  const auto name = NameIn(key, kind);
  return name ? CopyOf(*name) : std::nullopt;
}

}  // namespace

bool IsFleetName(std::string_view name) {
  return !name.empty() && name.size() <= kLongestName && name != "." && name != ".." &&
         std::all_of(name.begin(), name.end(), [](unsigned char sign) {
           return std::isalnum(sign) != 0 || sign == '-' || sign == '_' || sign == '.';
         });
}

std::string CameraKey(std::string_view camera) {
  return Key(kCamera, camera);
}
std::string RecorderKey(std::string_view recorder) {
  return Key(kRecorder, recorder);
}
std::string MemberKey(std::string_view recorder) {
  return Key(kMember, recorder);
}
std::string GoneKey(std::string_view recorder) {
  return Key(kGone, recorder);
}
std::string ClaimKey(const CameraCopy& copy) {
  return CopyKey(kClaim, copy);
}
std::string MoveKey(const CameraCopy& copy) {
  return CopyKey(kMove, copy);
}
std::string ProofKey(const CameraCopy& copy) {
  return CopyKey(kProof, copy);
}
bool IsProofKey(std::string_view key) {
  return NameIn(key, kProof).has_value();
}
bool IsMoveKey(std::string_view key) {
  return NameIn(key, kMove).has_value();
}
std::optional<CameraCopy> ClaimedBy(std::string_view key) {
  return CopyIn(key, kClaim);
}
std::string FleetKey() {
  return Key("fleet", "");
}
std::string PlannerKey() {
  return Key("planner", "");
}
std::string NextSiteKey() {
  return Key("next_site", "");
}

std::string ValueOf(const FleetCamera& camera) {
  return Text({{"site", camera.site},
               {"name", camera.name},
               {"url", camera.url},
               {"user", camera.user},
               {"secret", camera.secret},
               {"transport", camera.transport},
               {"group", camera.group},
               {"spill", camera.spill},
               {"weight", camera.weight},
               {"copies", camera.copies},
               {"plan", camera.plan},
               {"keep_days", camera.keepDays},
               {"isolated", camera.stopsIsolated ? "stop" : "keep"},
               {"on", camera.on}});
}

std::string ValueOf(const FleetRecorder& recorder) {
  return Text(
      {{"group", recorder.group}, {"capacity", recorder.capacity}, {"drain", recorder.drain}});
}

std::string ValueOf(const FleetMember& member) {
  return Text({{"inst", member.instance}, {"url", member.url}});
}

std::string ValueOf(const FleetClaim& claim) {
  return Text({{"r", claim.recorder}, {"was", claim.was}, {"why", claim.why}, {"t", claim.time}});
}

std::string ValueOf(const FleetMove& move) {
  return Text({{"from", move.from}, {"to", move.to}, {"claim", move.claim}});
}

std::string ValueOf(const FleetProof& proof) {
  return Text({{"r", proof.recorder}, {"claim", proof.claim}, {"up", proof.up}});
}

std::string ValueOf(const FleetSettings& settings) {
  return Text({{"generation", settings.generation}, {"rebalance", settings.rebalance}});
}

std::optional<FleetCamera> ReadCamera(std::string_view value) {
  const Fields fields(value);
  if (!fields.AreRead()) {
    return std::nullopt;
  }
  FleetCamera camera;
  camera.site = fields.Count("site", 0);
  camera.name = fields.Text("name");
  camera.url = fields.Text("url");
  camera.user = fields.Text("user");
  camera.secret = fields.Text("secret");
  camera.transport = fields.Text("transport", camera.transport);
  camera.group = fields.Text("group");
  camera.spill = fields.Flag("spill", true);
  camera.weight = fields.Count("weight", 1, 1);
  camera.copies = fields.Count("copies", 1, 1, kMostCopies);
  camera.plan = fields.Text("plan", camera.plan);
  camera.keepDays = fields.Count("keep_days", 0);
  camera.stopsIsolated = fields.Text("isolated") == "stop";
  camera.on = fields.Flag("on", true);
  return camera.site == 0 || camera.url.empty() ? std::nullopt : std::optional(camera);
}

void FleetView::Put(const EngineKey& key) {
  const Fields fields(key.value);
  if (key.key == PlannerKey()) {
    planner = key.value;
  } else if (key.key == NextSiteKey()) {
    std::from_chars(key.value.data(), key.value.data() + key.value.size(), nextSite);
  } else if (!fields.AreRead()) {
    return;
  } else if (key.key == FleetKey()) {
    settings = {fields.Number("generation", 0, 0, kMostGenerations),
                fields.Flag("rebalance", true)};
  } else if (const auto camera = RecorderIn(key.key, kCamera)) {
    if (const auto read = ReadCamera(key.value)) {
      cameras[*camera] = *read;
    }
  } else if (const auto recorder = RecorderIn(key.key, kRecorder)) {
    recorders[*recorder] = {fields.Text("group"), fields.Count("capacity", 0),
                            fields.Flag("drain", false)};
  } else if (const auto member = RecorderIn(key.key, kMember)) {
    members[*member] = {fields.Text("inst"), key.createRevision, fields.Text("url")};
  } else if (const auto dead = RecorderIn(key.key, kGone)) {
    gone[*dead] = fields.Whole("t");
  } else if (const auto claimed = CopyIn(key.key, kClaim)) {
    claims[*claimed] = {fields.Text("r"), fields.Text("was"), fields.Text("why"), fields.Whole("t"),
                        key.modRevision};
  } else if (const auto moved = CopyIn(key.key, kMove)) {
    moves[*moved] = {fields.Text("from"), fields.Text("to"), fields.Whole("claim"),
                     key.createRevision};
  } else if (const auto proven = CopyIn(key.key, kProof)) {
    proofs[*proven] = {fields.Text("r"), fields.Whole("claim"), fields.Flag("up", false)};
  }
}

void FleetView::Remove(std::string_view key) {
  if (key == PlannerKey()) {
    planner.clear();
  } else if (key == FleetKey()) {
    settings = {};
  } else if (const auto camera = RecorderIn(key, kCamera)) {
    cameras.erase(*camera);
  } else if (const auto recorder = RecorderIn(key, kRecorder)) {
    recorders.erase(*recorder);
  } else if (const auto member = RecorderIn(key, kMember)) {
    members.erase(*member);
  } else if (const auto dead = RecorderIn(key, kGone)) {
    gone.erase(*dead);
  } else if (const auto claimed = CopyIn(key, kClaim)) {
    claims.erase(*claimed);
  } else if (const auto moved = CopyIn(key, kMove)) {
    moves.erase(*moved);
  } else if (const auto proven = CopyIn(key, kProof)) {
    proofs.erase(*proven);
  }
}

const FleetClaim* FleetView::ClaimOf(const CameraCopy& copy) const {
  const auto found = claims.find(copy);
  return found == claims.end() ? nullptr : &found->second;
}

bool FleetView::IsProven(const CameraCopy& copy) const {
  const auto proof = proofs.find(copy);
  const FleetClaim* claim = ClaimOf(copy);
  return claim != nullptr && proof != proofs.end() && proof->second.up &&
         proof->second.claim == claim->modRevision && proof->second.recorder == claim->recorder;
}

std::vector<CameraCopy> FleetView::Copies() const {
  std::vector<CameraCopy> copies;
  for (const auto& [name, camera] : cameras) {
    for (unsigned copy = 0; camera.on && copy < camera.copies; ++copy) {
      copies.push_back({name, copy});
    }
  }
  return copies;
}

}  // namespace cms::fleet
