// Waiting for a socket, or for being told to stop.
#pragma once

#include <chrono>

namespace cms {

enum class Readiness { kReady, kTimeOut, kStopped, kFailed };

inline constexpr std::chrono::microseconds kNoLimit{-1};

// Waits until `descriptor` has one of the poll `events` or an error to tell (kReady), or until
// `stop` (an eventfd) is readable, which goes first. Signals do not shorten the wait. A negative
// descriptor is not looked at: the wait is for the stop alone.
Readiness WaitReady(int descriptor, short events, int stop,
                    std::chrono::microseconds limit = kNoLimit);

}  // namespace cms
