// CLFX_MOVEFILE_Client, the thread that moves a site's finished recordings to network storage.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "cms/runtime/api.h"
#include "cms/runtime/base_thread.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/event.h"

// Moves files one after the other, in the order in which they were added: replacing, across volumes
// by a copy that takes the target's name only when it is whole and safe. A move that fails stays at
// the front, is tried again every two seconds and keeps those behind it waiting, until it succeeds
// or LastMove gives it up. What a mover that was killed left half copied in a target's folder is
// removed with the first move there. A pair with a path of fewer than three characters at the front
// is no move: it stays there, and the thread waits, until LastMove.
//
// The owner starts, stops and destroys it; any thread adds pairs. Destruction stops the thread and
// waits for the move that runs.
class CMS_API CLFX_MOVEFILE_Client : public CLFX::CLFXBaseThread {
 public:
  CLFX_MOVEFILE_Client();
  ~CLFX_MOVEFILE_Client() override;

  // Appends a file and where it goes; paths as in cms/runtime/nativePath.h. Before StartMove too.
  void AddMove(std::wstring source, std::wstring destination);

  bool StartMove();  // false when it runs already, or was not seen off by Supervision
  void StopMove();   // the move that runs is finished; the rest stays in the list

  // Moves all that is in the list on the calling thread, each pair once, and empties the list.
  // Returns how many could not be moved.
  int LastMove();

  // Waits for the thread to end after StopMove; false on time-out. After true it may start again.
  bool Supervision(std::uint32_t timeoutMs);

  // A pair whose source is gone leaves the list from now on: somebody removed the file, which may
  // have been the oldest. Before StartMove.
  void PassGoneFiles() { passGone_ = true; }

  // Asks the system to prefer the mover's thread; without the right to it nothing changes.
  void SetHighPriority();

  std::size_t Pending() const;
  int LastError() const { return lastError_.load(std::memory_order_relaxed); }  // errno; 0: none

 private:
  struct Pair {
    std::wstring source;
    std::wstring destination;
    bool IsMove() const { return source.size() >= 3 && destination.size() >= 3; }
  };

  std::uint32_t ThreadRoutine() override;
  void OnMoveFile();
  bool Front(Pair& pair) const;
  void RemoveFront();
  bool Move(const Pair& pair) CMS_REQUIRES(moving_);

  mutable CMSCritical lock_;
  std::deque<Pair> pairs_ CMS_GUARDED_BY(lock_);
  CMSCritical moving_;                         // held while a file moves, taken before lock_
  std::string swept_ CMS_GUARDED_BY(moving_);  // the folder without leftovers of killed moves
  cms::Event changed_;                         // the list, or what the thread is to do
  std::atomic<bool> highPriority_{false};
  std::atomic<int> lastError_{0};
  std::atomic<bool> passGone_{false};
};
