#include "cms/runtime/internal/cancel_gate.h"

namespace cms {

CancelGate::Shut::Shut(CancelGate& gate) : gate_(gate) {
  ScopeLock lock(gate_.lock_);
  ++gate_.holders_;
  gate_.signal_.Signal();
  if (gate_.waiter_ != nullptr) {
    gate_.waiter_->OnCancel();
  }
}

CancelGate::Shut::~Shut() {
  ScopeLock lock(gate_.lock_);
  if (--gate_.holders_ == 0) {
    gate_.signal_.Clear();
  }
}

void CancelGate::Enter(Waiter& waiter) {
  ScopeLock lock(lock_);
  waiter_ = &waiter;
}

void CancelGate::Leave(const Waiter& waiter) {
  ScopeLock lock(lock_);
  if (waiter_ == &waiter) {
    waiter_ = nullptr;
  }
}

}  // namespace cms
