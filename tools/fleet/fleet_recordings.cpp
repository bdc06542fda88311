#include "tools/fleet/fleet_recordings.h"

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <stdexcept>
#include <utility>

#include "fleet/day_record.h"
#include "fleet/peer_recordings.h"
#include "tools/fleet/fleet_command.h"

namespace tools {
namespace {

using cms::fleet::AwayHours;
using cms::fleet::FleetView;
using cms::fleet::HeldPiece;

constexpr std::chrono::milliseconds kHolderWait{5'000};
constexpr std::uint64_t kMostAnswer = 64u << 20;
constexpr std::int64_t kDayLength = 86'400'000;
constexpr std::int64_t kHourLength = 3'600'000;

// By recorder and site.
using CataloguedHours = std::map<std::string, std::map<std::uint32_t, std::vector<AwayHours>>>;

CataloguedHours ReadCatalogue(cms::fleet::EngineClient& engine, std::int64_t from,
                              std::int64_t to) {
  CataloguedHours result;
  const auto keys = engine.Range(cms::fleet::DayKeyFrom(from / kDayLength),
                                 cms::fleet::DayKeyFrom(to / kDayLength + 1));
  if (!keys) {
    throw EngineIsAway(engine);
  }
  for (const auto& key : keys->keys) {
    const auto parts = cms::fleet::ReadDayKey(key.key);
    const auto record = cms::fleet::DecodeDay(key.value);
    for (const auto& [site, held] : parts&& record ? *record : cms::fleet::DayRecord{}) {
      for (std::int64_t hour = 0; hour < 24; ++hour) {
        const std::int64_t begin = parts->day * kDayLength + hour * kHourLength;
        if ((held.hours >> hour & 1) != 0 && begin < to && begin + kHourLength > from) {
          result[parts->recorder][site].push_back({parts->recorder, begin, begin + kHourLength});
        }
      }
    }
  }
  return result;
}

std::vector<FleetSite> ChosenSites(const FleetView& view, const std::vector<std::string>& cameras) {
  std::vector<FleetSite> sites;
  for (const std::string& name : cameras) {
    if (!view.cameras.contains(name)) {
      throw std::runtime_error(name + ": the fleet has no such camera");
    }
  }
  for (const auto& [name, camera] : view.cameras) {
    if (cameras.empty() || std::find(cameras.begin(), cameras.end(), name) != cameras.end()) {
      sites.push_back({name, camera.site, {}, {}, {}});
    }
  }
  return sites;
}

// False, with its state, when it does not answer for each of the sites.
bool AskHolder(cms::fleet::PeerClient& peers, const std::string& url,
               const std::set<std::uint32_t>& wanted, std::vector<FleetSite>& sites,
               std::int64_t from, std::int64_t to, FleetHolder& holder) {
  std::map<std::uint32_t, std::vector<HeldPiece>> all;
  for (const std::uint32_t site : wanted) {
    const auto answer = peers.Get(url,
                                  "recordings?site=" + std::to_string(site) +
                                      "&from=" + std::to_string(from) + "&to=" + std::to_string(to),
                                  kHolderWait, kMostAnswer);
    if (!answer) {
      holder.state = "late";
      holder.problem = peers.Problem();
      return false;
    }
    auto pieces = cms::fleet::ReadPeerRecordings(*answer, holder.recorder);
    if (!pieces) {
      holder.state = "late";
      holder.problem = url + ": it answers what cannot be read: is it of this version?";
      return false;
    }
    all[site] = std::move(*pieces);
  }
  for (FleetSite& site : sites) {
    const auto& pieces = all[site.site];
    site.held.insert(site.held.end(), pieces.begin(), pieces.end());
  }
  return true;
}

}  // namespace

bool FleetRecordings::IsComplete() const {
  return std::all_of(sites.begin(), sites.end(),
                     [](const FleetSite& site) { return site.missing.empty(); });
}

FleetRecordings FindFleetRecordings(cms::fleet::EngineClient& engine, cms::fleet::PeerClient& peers,
                                    const std::vector<std::string>& cameras, std::int64_t from,
                                    std::int64_t to) {
  const FleetView view = LoadFleet(engine);
  FleetRecordings result;
  result.sites = ChosenSites(view, cameras);
  CataloguedHours catalogue = ReadCatalogue(engine, from, to);
  // What was recorded within the last minute is in no catalogue yet: who has a camera is asked.
  for (const auto& [copy, claim] : view.claims) {
    if (const auto camera = view.cameras.find(copy.camera); camera != view.cameras.end()) {
      catalogue[claim.recorder][camera->second.site];
    }
  }
  std::map<std::uint32_t, std::vector<AwayHours>> away;
  for (const auto& [recorder, held] : catalogue) {
    FleetHolder holder{recorder, "ok", "", 0};
    std::set<std::uint32_t> wanted;
    for (const FleetSite& site : result.sites) {
      if (held.contains(site.site)) {
        wanted.insert(site.site);
      }
    }
    if (wanted.empty()) {
      continue;
    }
    const auto member = view.members.find(recorder);
    bool answers = false;
    if (member == view.members.end()) {
      holder.state = "away";
      const auto gone = view.gone.find(recorder);
      holder.since = gone == view.gone.end() ? 0 : gone->second;
      holder.problem = "it does not live";
    } else if (member->second.url.empty()) {
      holder.state = "late";
      holder.problem = "it runs without --port and --url";
    } else {
      answers = AskHolder(peers, member->second.url, wanted, result.sites, from, to, holder);
    }
    for (const std::uint32_t site : answers ? std::set<std::uint32_t>{} : wanted) {
      const auto& hours = held.at(site);
      away[site].insert(away[site].end(), hours.begin(), hours.end());
    }
    result.holders.push_back(std::move(holder));
  }
  for (FleetSite& site : result.sites) {
    site.pieces = cms::fleet::MergePieces(site.held, from, to);
    site.missing = cms::fleet::MissingOf(away[site.site], site.pieces, from, to);
  }
  return result;
}

}  // namespace tools
