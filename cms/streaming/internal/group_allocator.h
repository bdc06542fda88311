// GroupAllocator spreads clients over I/O groups so that no group serves more sockets than it can.
#pragma once

#include <map>

#include "cms/runtime/critical.h"

namespace cms {

// Hands out group keys, filling each group before it opens another: threads stay few. Keys that
// client applications choose themselves are small numbers; these start far above. Any thread.
class GroupAllocator {
 public:
  // A pair serves 64 sockets, its own wake-up included; the rest is reserve.
  static constexpr int kSocketsPerGroup = 60;
  static constexpr int kFirstKey = 0x40000000;

  static GroupAllocator& Instance();

  int Claim(int sockets);  // at most kSocketsPerGroup
  void Release(int key, int sockets);

 private:
  CMSCritical lock_;
  std::map<int, int> used_ CMS_GUARDED_BY(lock_);  // key -> sockets
};

// A claim that gives its sockets back at its end. A key chosen by the caller is not counted.
class GroupClaim {
 public:
  GroupClaim(int chosenKey, int automaticKey, int sockets);
  ~GroupClaim();
  GroupClaim(const GroupClaim&) = delete;
  GroupClaim& operator=(const GroupClaim&) = delete;
  int Key() const { return key_; }
  // Gives back what the claim has beyond that many sockets.
  void Shrink(int sockets);

 private:
  int key_;
  int sockets_;
};

}  // namespace cms
