#include "cms/runtime/internal/native_thread.h"

#include <pthread.h>
#include <unistd.h>

#include <system_error>
#include <utility>

namespace cms {

std::shared_ptr<NativeThread> NativeThread::CreateSuspended(const std::string& name, Body body) {
  std::shared_ptr<NativeThread> made(new NativeThread);
  try {
    made->thread_ = std::thread([self = made, work = std::move(body), name] {
      if (!name.empty()) {
        pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
      }
      self->id_ = static_cast<std::uint32_t>(gettid());
      self->born_.Set();
      self->gate_.Wait();
      self->exitCode_ = work(*self);
      self->ended_.Set();
    });
  } catch (const std::system_error&) {
    return nullptr;
  }
  made->born_.Wait();
  return made;
}

NativeThread::~NativeThread() {
  if (thread_.joinable()) {
    WaitEnded(0);
  }
  if (thread_.joinable()) {
    thread_.detach();
  }
}

bool NativeThread::WaitEnded(int milliseconds) {
  if (!ended_.Wait(milliseconds)) {
    return false;
  }
  if (!IsCaller() && !released_.exchange(true, std::memory_order_acq_rel)) {
    thread_.join();
  }
  return true;
}

bool NativeThread::IsCaller() const {
  return id_ == static_cast<std::uint32_t>(gettid());
}

}  // namespace cms
