// Looking up a host's addresses without having to wait for the resolver.
#pragma once

#include <string>
#include <vector>

#include "cms/runtime/ip_address.h"
#include "cms/runtime/wake_up.h"

namespace cms {

struct NameLookup {
  enum class Outcome { kFound, kNoAddress, kTimeout, kCancelled, kNoThread };
  Outcome outcome = Outcome::kNoAddress;
  std::vector<IpAddress> addresses;  // in the order in which they are worth a try
};

// The addresses of a name, or of an address's own text. The resolver, which nothing can interrupt,
// is asked on a thread of its own; after the limit or when `cancel` is signalled that thread is
// left behind and ends by itself. All that ask for the same name at a time share one thread. Any
// thread.
NameLookup LookUpHost(const std::string& host, int limitMs, const WakeUp& cancel);

// For tests: what is asked instead of the system's resolver; nullptr for that one.
using Resolver = std::vector<IpAddress> (*)(const std::string& host);
void SetResolver(Resolver resolver);

}  // namespace cms
