#include "fleet/membership.h"

#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <utility>

#include "cms/runtime/log.h"
#include "fleet/boot_clock.h"
#include "fleet/fleet_view.h"

namespace cms::fleet {

Membership::Membership(EngineAccess access, std::string name, FleetMember self, int ttlSeconds,
                       Told told)
    : engine_(std::move(access)),
      name_(std::move(name)),
      self_(std::move(self)),
      ttl_(ttlSeconds),
      told_(std::move(told)) {
  thread_ = std::thread([this] { Run(); });
}

Membership::~Membership() {
  ends_ = true;
  wake_.Signal();
  thread_.join();
}

void Membership::SetPresent(bool present) {
  if (present_.exchange(present) != present) {
    wake_.Signal();
  }
}

void Membership::Run() {
  pthread_setname_np(pthread_self(), "fleet-lease");
  const int quarter = ttl_ * 1'000 / 4;
  while (!ends_) {
    const Tick begun = BootTick();
    if (!present_) {
      Leave();
    } else if (lease_ == 0) {
      Join();
    } else {
      Renew();
    }
    if (present_ && lease_ == 0 && !ends_) {
      pollfd wait{wake_.Descriptor(), POLLIN, 0};  // lost, or nobody answered
      poll(&wait, 1, 200);
    } else {
      const auto taken = static_cast<int>((BootTick() - begun).count());
      pollfd wait{wake_.Descriptor(), POLLIN, 0};
      poll(&wait, 1, std::max(quarter - taken, 0));
    }
    wake_.Clear();
  }
}

// The key of an earlier start on the same data folder is written over; one of another recorder that
// goes by this name is left alone.
void Membership::Join() {
  const Tick sent = BootTick();
  const std::string key = MemberKey(name_);
  const auto before = engine_.Range(key);
  FleetView view;
  if (before && !before->keys.empty()) {
    view.Put(before->keys.front());
  }
  if (view.Lives(name_) && view.members.at(name_).instance != self_.instance) {
    told_({MembershipFact::Kind::kTaken, {}, {}, 0, before->header.revision});
    return;
  }
  const auto lease = before ? engine_.Grant(ttl_) : std::nullopt;
  if (!lease) {
    told_({MembershipFact::Kind::kLost, {}, {}, 0, 0});
    return;
  }
  const std::int64_t created = before->keys.empty() ? 0 : before->keys.front().createRevision;
  const auto written = engine_.Transact(EngineTransaction()
                                            .IfCreated(key, created)
                                            .Put(key, ValueOf(self_), lease->lease)
                                            .Delete(GoneKey(name_)));
  if (!written || !written->succeeded) {
    return;
  }
  lease_ = lease->lease;
  told_({MembershipFact::Kind::kJoined, sent, Tick(lease->ttl * 1'000),
         created == 0 ? written->header.revision : created, written->header.revision});
}

void Membership::Renew() {
  const Tick sent = BootTick();
  const auto renewal = engine_.Renew(lease_);
  if (!renewal) {
    return;  // the deadline tells when that is too long
  }
  if (renewal->ttl == 0) {
    Log(LogLevel::kWarning, "fleet", "the engine ended the lease of " + name_ + ": joining again");
    lease_ = 0;
    told_({MembershipFact::Kind::kLost, {}, {}, 0, renewal->header.revision});
    Join();
    return;
  }
  told_({MembershipFact::Kind::kRenewed, sent, Tick(renewal->ttl * 1'000), 0,
         renewal->header.revision});
}

void Membership::Leave() {
  if (const std::int64_t lease = lease_.exchange(0); lease != 0) {
    engine_.Revoke(lease);
    told_({MembershipFact::Kind::kLost, {}, {}, 0, 0});
  }
}

}  // namespace cms::fleet
