#include "cms/streaming/internal/group_allocator.h"

namespace cms {

GroupAllocator& GroupAllocator::Instance() {
  static auto* const allocator = new GroupAllocator;  // clients may outlive static objects
  return *allocator;
}

int GroupAllocator::Claim(int sockets) {
  ScopeLock lock(lock_);
  for (int key = kFirstKey;; ++key) {
    int& used = used_[key];
    if (used + sockets <= kSocketsPerGroup) {
      used += sockets;
      return key;
    }
  }
}

void GroupAllocator::Release(int key, int sockets) {
  ScopeLock lock(lock_);
  used_[key] -= sockets;
}

GroupClaim::GroupClaim(int chosenKey, int automaticKey, int sockets)
    : key_(chosenKey), sockets_(chosenKey == automaticKey ? sockets : 0) {
  if (sockets_ > 0) {
    key_ = GroupAllocator::Instance().Claim(sockets_);
  }
}

void GroupClaim::Shrink(int sockets) {
  if (sockets < sockets_) {
    GroupAllocator::Instance().Release(key_, sockets_ - sockets);
    sockets_ = sockets;
  }
}

GroupClaim::~GroupClaim() {
  if (sockets_ > 0) {
    GroupAllocator::Instance().Release(key_, sockets_);
  }
}

}  // namespace cms
