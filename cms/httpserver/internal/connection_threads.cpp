#include "cms/httpserver/internal/connection_threads.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <utility>

#include "cms/net/internal/listening_socket.h"
#include "cms/net/internal/wait_ready.h"

namespace cms {
namespace {

// How long to wait for a descriptor or memory to come back.
constexpr std::chrono::milliseconds kExhaustedPause{10};
// As much as handlers have on other platforms. Only what they use is ever committed.
constexpr std::size_t kStack = std::size_t{1} << 20;

}  // namespace

bool ConnectionThreads::Start(int listening, int stop, std::size_t most, Serve serve) {
  listening_ = listening;
  stop_ = stop;
  most_ = most;
  serve_ = std::move(serve);
  none_.Reset();
  if (AddThread(most_) != Added::kYes) {
    listening_ = -1;
    return false;
  }
  return true;
}

int ConnectionThreads::StopAccepting() {
  return listening_ < 0 ? -1 : shutdown(listening_, SHUT_RDWR);
}

void ConnectionThreads::Close() {
  if (listening_ < 0) {
    return;
  }
  StopAccepting();  // wakes the threads that accept
  none_.Wait();
  ScopeLock lock(lock_);
  const std::optional<pthread_t> last = std::exchange(ended_, std::nullopt);
  lock.UnLock();
  pthread_join(last.value(), nullptr);
  close(std::exchange(listening_, -1));
}

void* ConnectionThreads::Run(void* self) {
  pthread_setname_np(pthread_self(), "cms-http-server");
  static_cast<ConnectionThreads*>(self)->Work();
  return nullptr;
}

void ConnectionThreads::Work() {
  bool fit = true;
  do {
    sockaddr_in client{};
    const int accepted = Accept(client);
    if (accepted < 0) {
      --waiting_;
      break;
    }
    ++serving_;
    if (SomebodyElseWaits()) {
      fit = serve_(accepted, client);
    } else {
      close(accepted);
    }
    --serving_;
  } while (WaitForMore(fit));
  Leave();
}

// The descriptor of a connection; -1 once no more are to be accepted.
int ConnectionThreads::Accept(sockaddr_in& client) const {
  while (true) {
    socklen_t size = sizeof client;
    const int accepted =
        accept4(listening_, reinterpret_cast<sockaddr*>(&client), &size, SOCK_CLOEXEC);
    if (accepted >= 0) {
      return accepted;
    }
    switch (WhyAcceptFailed(errno)) {
      case AcceptFailure::kTryAgain:
        break;
      case AcceptFailure::kExhausted:
        WaitReady(-1, 0, stop_, kExhaustedPause);
        break;
      case AcceptFailure::kClosed:
        return -1;
    }
  }
}

// Gives up the caller's place among those that wait. False when it was the last one and the system
// has no thread to take it: nobody would notice if this connection lasted.
bool ConnectionThreads::SomebodyElseWaits() {
  return --waiting_ > 0 || AddThread(most_) != Added::kRefused;
}

// Whether the caller, done with a connection, is to accept another one; then it counts as waiting.
bool ConnectionThreads::WaitForMore(bool fit) {
  int waiting = waiting_;
  while (waiting < kMostWaiting) {
    if (!fit && (waiting > 0 || AddThread(most_ + 1) != Added::kRefused)) {
      return false;
    }
    if (waiting_.compare_exchange_weak(waiting, waiting + 1)) {
      return true;
    }
  }
  return false;
}

// Others may have come to wait, or added one, while the lock was waited for.
ConnectionThreads::Added ConnectionThreads::AddThread(std::size_t most) {
  ScopeLock lock(lock_);
  if (waiting_ > 0 || threads_ >= most) {
    return Added::kEnough;
  }
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  pthread_attr_setstacksize(&attributes, kStack);
  pthread_t thread{};
  ++waiting_;
  const bool made = pthread_create(&thread, &attributes, &ConnectionThreads::Run, this) == 0;
  pthread_attr_destroy(&attributes);
  if (!made) {
    --waiting_;
    return Added::kRefused;
  }
  ++threads_;
  return Added::kYes;
}

// The last step of a thread. It joins the one that left before it, so that whoever joins the last
// one has joined them all.
void ConnectionThreads::Leave() {
  ScopeLock lock(lock_);
  const std::optional<pthread_t> earlier = std::exchange(ended_, pthread_self());
  if (--threads_ == 0) {
    none_.Set();
  }
  lock.UnLock();
  if (earlier) {
    pthread_join(*earlier, nullptr);
  }
}

}  // namespace cms
