#include "fleet/planner.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <set>
#include <string_view>
#include <tuple>
#include <utility>

namespace cms::fleet {
namespace {

// Above a recorder's fair share others come first, so that few cameras are spread as well as many.
constexpr double kShareMargin = 1.1;
constexpr double kUnevenly = 0.15;  // of the capacity, between the fullest and the emptiest

// FNV-1a, with the sign that ends a text.
std::uint64_t Hashed(std::uint64_t hash, const std::string& text) {
  for (const char sign : text) {
    hash = (hash ^ static_cast<unsigned char>(sign)) * 0x100000001B3u;
  }
  return hash * 0x100000001B3u;
}

std::uint64_t HashOf(const CameraCopy& copy) {
  return Hashed(Hashed(0xCBF29CE484222325u, copy.camera), std::to_string(copy.copy));
}

// And a finalizer that makes each bit depend on all others.
std::uint64_t HashOf(std::uint64_t copy, const std::string& recorder) {
  std::uint64_t hash = Hashed(copy, recorder);
  hash ^= hash >> 33;
  hash *= 0xFF51AFD7ED558CCDu;
  hash ^= hash >> 33;
  hash *= 0xC4CEB9FE1A85EC53u;
  return hash ^ (hash >> 33);
}

// Rendezvous hashing: of all recorders the one with the highest score, in proportion to capacity.
double ScoreOf(std::uint64_t copy, const std::string& recorder, unsigned capacity) {
  const double part = (static_cast<double>(HashOf(copy, recorder) >> 11) + 0.5) / 0x1p53;
  return capacity / -std::log(part);
}

struct Place {
  std::string group;
  unsigned capacity = 0;
  bool drain = false;
  bool isKnown = false;  // false: it holds cameras, and the engine lacks its settings
  unsigned load = 0;
  double share = 0;
};

// What is where; claims that are given out here count at once.
class Places {
 public:
  explicit Places(const FleetView& view) : view_(view) {
    for (const auto& [name, member] : view.members) {
      if (const auto found = view.recorders.find(name); found != view.recorders.end()) {
        places_[name] = {found->second.group, found->second.capacity, found->second.drain, true};
      }
    }
    double weights = 0;
    double capacities = 0;
    for (const CameraCopy& copy : view.Copies()) {
      weights += view.cameras.at(copy.camera).weight;
      if (const auto holder = LivingHolder(copy)) {
        Take(copy, *holder);
      }
    }
    for (const auto& [name, place] : places_) {
      capacities += place.drain ? 0 : place.capacity;
    }
    for (auto& [name, place] : places_) {
      place.share = std::ceil(weights * kShareMargin * place.capacity / std::max(capacities, 1.0));
    }
  }

  std::optional<std::string> LivingHolder(const CameraCopy& copy) const {
    const FleetClaim* claim = view_.ClaimOf(copy);
    return claim != nullptr && view_.Lives(claim->recorder) ? std::optional(claim->recorder)
                                                            : std::nullopt;
  }

  void Take(const CameraCopy& copy, const std::string& recorder) {
    places_[recorder].load += view_.cameras.at(copy.camera).weight;
    holders_[copy.camera].insert(recorder);
  }

  void Leave(const CameraCopy& copy, const std::string& recorder) {
    places_[recorder].load -= view_.cameras.at(copy.camera).weight;
    holders_[copy.camera].erase(recorder);
  }

  // Lower is better: of its group, below its share, by score, by name.
  using Rank = std::tuple<bool, bool, double, std::string_view>;

  // Of those that have room for it, in no order.
  void RankAll(const CameraCopy& copy, std::vector<Rank>& ranks) const {
    ranks.clear();
    const FleetCamera& camera = view_.cameras.at(copy.camera);
    const std::uint64_t hash = HashOf(copy);
    const auto held = holders_.find(copy.camera);
    for (const auto& [name, place] : places_) {
      const bool foreign = IsForeign(camera, place);
      const bool holds = held != holders_.end() && held->second.contains(name);
      if (!place.drain && place.load + camera.weight <= place.capacity && !holds &&
          (!foreign || camera.spill)) {
        ranks.emplace_back(foreign, place.load + camera.weight > place.share,
                           -ScoreOf(hash, name, place.capacity), name);
      }
    }
  }

  // The best one first; empty: no room.
  std::vector<std::string> Candidates(const CameraCopy& copy) const {
    std::vector<Rank> ranks;
    RankAll(copy, ranks);
    std::sort(ranks.begin(), ranks.end());
    std::vector<std::string> names;
    names.reserve(ranks.size());
    for (const Rank& rank : ranks) {
      names.emplace_back(std::get<3>(rank));
    }
    return names;
  }

  static bool IsForeign(const FleetCamera& camera, const Place& place) {
    return !camera.group.empty() && camera.group != place.group;
  }
  bool Holds(const CameraCopy& copy, const std::string& recorder) const {
    const auto found = holders_.find(copy.camera);
    return found != holders_.end() && found->second.contains(recorder);
  }
  const std::map<std::string, Place>& All() const { return places_; }

 private:
  const FleetView& view_;
  std::map<std::string, Place> places_;                   // living recorders
  std::map<std::string, std::set<std::string>> holders_;  // by cameras
};

double FillOf(const Place& place) {
  return place.capacity == 0 ? 1 : static_cast<double>(place.load) / place.capacity;
}

// A copy of the fullest that makes it and the emptiest more even; nullopt: they are even enough.
std::optional<PlannedMove> EvenOut(const FleetView& view, const Places& places,
                                   const std::set<std::string>& targets,
                                   const std::set<CameraCopy>& moving) {
  const std::pair<const std::string, Place>* fullest = nullptr;
  const std::pair<const std::string, Place>* emptiest = nullptr;
  for (const auto& each : places.All()) {
    if (each.second.drain || !each.second.isKnown) {
      continue;
    }
    if (fullest == nullptr || FillOf(each.second) > FillOf(fullest->second)) {
      fullest = &each;
    }
    if (targets.contains(each.first) &&
        (emptiest == nullptr || FillOf(each.second) < FillOf(emptiest->second))) {
      emptiest = &each;
    }
  }
  if (fullest == nullptr || emptiest == nullptr ||
      FillOf(fullest->second) - FillOf(emptiest->second) <= kUnevenly) {
    return std::nullopt;
  }
  std::optional<PlannedMove> best;
  double bestScore = -1;
  for (const CameraCopy& copy : view.Copies()) {
    const FleetCamera& camera = view.cameras.at(copy.camera);
    Place source = fullest->second;
    Place target = emptiest->second;
    source.load -= std::min(camera.weight, source.load);
    target.load += camera.weight;
    const double score = ScoreOf(HashOf(copy), emptiest->first, target.capacity);
    if (score > bestScore && !moving.contains(copy) &&
        places.LivingHolder(copy) == fullest->first && !places.Holds(copy, emptiest->first) &&
        !Places::IsForeign(camera, target) && target.load <= target.capacity &&
        FillOf(target) <= FillOf(source) + kUnevenly / 2) {
      best = PlannedMove{copy, fullest->first, emptiest->first};
      bestScore = score;
    }
  }
  return best;
}

}  // namespace

std::map<CameraCopy, std::vector<std::string>> PlanClaims(const FleetView& view) {
  Places places(view);
  std::map<CameraCopy, std::vector<std::string>> plan;
  for (const CameraCopy& copy : view.Copies()) {
    if (places.LivingHolder(copy)) {
      continue;
    }
    std::vector<std::string>& names = plan[copy] = places.Candidates(copy);
    if (!names.empty()) {
      places.Take(copy, names.front());
    }
  }
  return plan;
}

// Of fifty names for each of ten thousand cameras nothing is sorted or kept but this.
std::map<CameraCopy, PlannedPlace> PlanClaimsOf(const FleetView& view,
                                                const std::string& recorder) {
  Places places(view);
  std::map<CameraCopy, PlannedPlace> plan;
  std::vector<Places::Rank> ranks;
  for (const CameraCopy& copy : view.Copies()) {
    if (places.LivingHolder(copy)) {
      continue;
    }
    PlannedPlace& planned = plan.emplace_hint(plan.end(), copy, PlannedPlace{})->second;
    places.RankAll(copy, ranks);
    if (ranks.empty()) {
      continue;
    }
    planned.first = std::get<3>(*std::min_element(ranks.begin(), ranks.end()));
    const auto own = std::find_if(ranks.begin(), ranks.end(), [&](const Places::Rank& rank) {
      return std::get<3>(rank) == recorder;
    });
    if (own != ranks.end()) {
      planned.rank = static_cast<std::size_t>(std::count_if(
          ranks.begin(), ranks.end(), [&](const Places::Rank& rank) { return rank < *own; }));
    }
    places.Take(copy, planned.first);
  }
  return plan;
}

std::vector<PlannedMove> PlanMoves(const FleetView& view, const std::vector<std::string>& settled,
                                   std::size_t most, bool rebalance) {
  Places places(view);
  std::vector<PlannedMove> moves;
  std::set<CameraCopy> moving;
  for (const auto& [copy, move] : view.moves) {
    moving.insert(copy);
    if (view.cameras.contains(copy.camera) && view.Lives(move.to) && !places.Holds(copy, move.to)) {
      places.Take(copy, move.to);
    }
  }
  const auto add = [&](const PlannedMove& move) {
    moves.push_back(move);
    moving.insert(move.copy);
    places.Leave(move.copy, move.from);
    places.Take(move.copy, move.to);
  };
  const std::set<std::string> targets(settled.begin(), settled.end());
  for (const bool drain : {true, false}) {
    for (const CameraCopy& copy : view.Copies()) {
      const auto holder = places.LivingHolder(copy);
      if (moves.size() >= most || !holder || moving.contains(copy) ||
          !places.All().contains(*holder)) {
        continue;
      }
      const Place& place = places.All().at(*holder);
      const FleetCamera& camera = view.cameras.at(copy.camera);
      if (!place.isKnown ||
          (drain ? !place.drain : place.drain || !Places::IsForeign(camera, place))) {
        continue;
      }
      const auto candidates = places.Candidates(copy);
      if (!candidates.empty() &&
          (drain || (targets.contains(candidates.front()) &&
                     !Places::IsForeign(camera, places.All().at(candidates.front()))))) {
        add({copy, *holder, candidates.front()});
      }
    }
  }
  while (rebalance && moves.size() < most) {
    const auto move = EvenOut(view, places, targets, moving);
    if (!move) {
      break;
    }
    add(*move);
  }
  return moves;
}

std::map<std::string, unsigned> LoadsOf(const FleetView& view) {
  const Places places(view);
  std::map<std::string, unsigned> loads;
  for (const auto& [name, place] : places.All()) {
    loads[name] = place.load;
  }
  return loads;
}

// Group by group a place may be missing that there is elsewhere, so the plan itself is asked.
unsigned MissingWithoutOne(const FleetView& view) {
  unsigned worst = view.members.empty() ? std::numeric_limits<unsigned>::max() : 0;
  for (const auto& [name, member] : view.members) {
    FleetView without = view;
    without.members.erase(name);
    unsigned missing = 0;
    for (const auto& [copy, names] : PlanClaims(without)) {
      missing += names.empty() ? view.cameras.at(copy.camera).weight : 0;
    }
    worst = std::max(worst, missing);
  }
  return worst;
}

}  // namespace cms::fleet
