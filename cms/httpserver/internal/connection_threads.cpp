#include "cms/httpserver/internal/connection_threads.h"

#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "cms/net/internal/listening_socket.h"

namespace cms {
namespace {

// As much as handlers have on other platforms. Only what they use is ever committed.
constexpr std::size_t kStack = std::size_t{1} << 20;

}  // namespace

bool ConnectionThreads::Start(int listening, int stop, std::size_t most, Serve serve) {
  listening_ = listening;
  stop_ = stop;
  most_ = most;
  serve_ = std::move(serve);
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
  team_.WaitAll();
  close(std::exchange(listening_, -1));
}

void ConnectionThreads::Work() {
  bool fit = true;
  do {
    sockaddr_in client{};
    const int accepted = AcceptNext(listening_, stop_, client);
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
  ScopeLock lock(lock_);
  --threads_;
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
  ++waiting_;
  if (!team_.Start(
          "cms-http-server", [this] { Work(); }, kStack)) {
    --waiting_;
    return Added::kRefused;
  }
  ++threads_;
  return Added::kYes;
}

}  // namespace cms
