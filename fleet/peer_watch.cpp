#include "fleet/peer_watch.h"

#include <poll.h>
#include <pthread.h>

#include <chrono>
#include <cmath>
#include <nlohmann/json.hpp>
#include <utility>

#include "cms/runtime/clock.h"
#include "cms/runtime/log.h"

namespace cms::fleet {
namespace {

using nlohmann::json;

constexpr std::chrono::milliseconds kPeerWait{400};
constexpr int kAskAgain = 500;       // milliseconds, while the engine is silent
constexpr int kAskForTime = 60'000;  // else
constexpr double kClocksDiffer = 0.5;
constexpr std::uint64_t kMostClaimBytes = 4u << 20;

}  // namespace

std::vector<PeerClaim> ReadPeerClaims(const std::string& text) {
  std::vector<PeerClaim> claims;
  const json answer = json::parse(text, nullptr, false);
  const auto field = [](const json& object, const char* name) {
    const auto found = object.is_object() ? object.find(name) : object.end();
    return object.is_object() && found != object.end() ? *found : json();
  };
  const json recorder = field(answer, "recorder");
  const json all = field(answer, "claims");
  if (field(answer, "confirmed") != true || !recorder.is_string() || !all.is_array()) {
    return claims;
  }
  for (const json& each : all) {
    const json camera = field(each, "camera");
    const json copy = field(each, "copy");
    const json claim = field(each, "claim");
    if (camera.is_string() && copy.is_number_unsigned() && claim.is_number_integer() &&
        field(each, "up") == true) {
      claims.push_back({recorder.get<std::string>(),
                        {camera.get<std::string>(), copy.get<unsigned>()},
                        claim.get<std::int64_t>()});
    }
  }
  return claims;
}

std::optional<std::int64_t> ReadPeerTime(const std::string& text) {
  const json answer = json::parse(text, nullptr, false);
  const auto found = answer.is_object() ? answer.find("time") : answer.end();
  const bool isTime = answer.is_object() && found != answer.end() && found->is_number_unsigned() &&
                      std::in_range<std::int64_t>(found->get<std::uint64_t>());
  return isTime ? std::optional(found->get<std::int64_t>()) : std::nullopt;
}

PeerWatch::PeerWatch(PeerAccess access, std::function<void(const PeerClaim&)> told)
    : client_(std::move(access)), told_(std::move(told)) {
  thread_ = std::thread([this] { Run(); });
}

PeerWatch::~PeerWatch() {
  ends_ = true;
  wake_.Signal();
  thread_.join();
}

void PeerWatch::Ask(std::vector<std::string> peers, bool engineIsSilent) {
  {
    const ScopeLock lock(lock_);
    if (peers == peers_ && engineIsSilent == often_) {
      return;
    }
    often_ = engineIsSilent;
    peers_ = std::move(peers);
  }
  wake_.Signal();
}

// By how much its clock is ahead: what it answered was so halfway between question and answer.
double PeerWatch::AskPeer(const std::string& url) {
  const std::int64_t asked = WallMicroseconds();
  const auto answer = client_.Get(url, "claims", kPeerWait, kMostClaimBytes);
  for (const PeerClaim& claim : ReadPeerClaims(answer.value_or(""))) {
    told_(claim);
  }
  const auto time = ReadPeerTime(answer.value_or(""));
  const double own = static_cast<double>(asked + WallMicroseconds()) / 2e6;
  return time ? static_cast<double>(*time) / 1e3 - own : 0;
}

void PeerWatch::Run() {
  pthread_setname_np(pthread_self(), "fleet-peers");
  while (!ends_) {
    std::vector<std::string> peers;
    bool often = false;
    {
      const ScopeLock lock(lock_);
      peers = peers_;
      often = often_;
    }
    double most = 0;
    for (const std::string& peer : peers) {
      const double offset = ends_ ? 0 : AskPeer(peer);
      most = std::abs(offset) > std::abs(most) ? offset : most;
    }
    if (std::abs(most) >= kClocksDiffer && std::abs(clockOffset_) < kClocksDiffer) {
      Log(LogLevel::kWarning, "fleet",
          "another recorder's clock differs by " + std::to_string(most) +
              " s: footage is found by the clock, so let NTP set them all");
    }
    clockOffset_ = most;
    pollfd wait{wake_.Descriptor(), POLLIN, 0};
    poll(&wait, 1, peers.empty() ? -1 : often ? kAskAgain : kAskForTime);
    wake_.Clear();
  }
}

}  // namespace cms::fleet
