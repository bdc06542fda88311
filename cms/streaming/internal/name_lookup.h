// Looking up a host's address without having to wait for the resolver.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cms/runtime/wake_up.h"

namespace cms {

struct NameLookup {
  enum class Outcome { kFound, kNoAddress, kTimeout, kCancelled, kNoThread };
  Outcome outcome = Outcome::kNoAddress;
  std::uint32_t address = 0;  // IPv4, host order
};

// The IPv4 address of a name or dotted text. The resolver, which nothing can interrupt, is asked on
// a thread of its own; after the limit or when `cancel` is signalled that thread is left behind and
// ends by itself. All that ask for the same name at a time share one thread. Any thread.
NameLookup LookUpIPv4(const std::string& host, int limitMs, const WakeUp& cancel);

// For tests: what is asked instead of the system's resolver; nullptr for that one.
using Resolver = std::optional<std::uint32_t> (*)(const std::string& host);
void SetResolver(Resolver resolver);

}  // namespace cms
