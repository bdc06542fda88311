// What was last made of a stream, for any number of watchers.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "cms/runtime/critical.h"

namespace tools {

using RecordBytes = std::vector<std::uint8_t>;

// A whole record as it is sent, shared by all to whom it goes.
struct StreamPiece {
  RecordBytes bytes;
  // The record that a watcher is told before the first piece of it; none: nothing.
  std::shared_ptr<const RecordBytes> header;
  bool key = false;  // watching can begin with it
  std::uint64_t number = 0;
  std::uint64_t tick = 0;  // milliseconds
};

// One thread adds pieces, and makes none while nobody watches; any thread watches. Holds the pieces
// of a second and from the last key piece but one on, and no more than kMostBytes. A watcher has
// nothing here but a number: one that is late goes on with a key piece, and nobody waits for it.
class StreamRing {
 public:
  static constexpr std::size_t kMostBytes = std::size_t{24} << 20;
  // Who is later than this goes on with the newest key piece.
  static constexpr std::uint64_t kLateMs = 1000;

  bool IsWatched() const { return watchers_.load(std::memory_order_relaxed) > 0; }

  // An empty piece to be filled, in memory that an earlier one had.
  std::shared_ptr<StreamPiece> Blank();
  // Pieces before the first key piece are dropped.
  void Add(std::shared_ptr<StreamPiece> piece);

  // Somebody watches while it lives. One thread at a time.
  class Watch {
   public:
    explicit Watch(StreamRing& ring);
    ~Watch();
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    // Appends what is new. False when that is nothing.
    bool Take(RecordBytes& to);

   private:
    StreamRing* ring_;
    std::uint64_t next_ = 0;  // number of the first piece not taken; 0: the newest key piece
    std::shared_ptr<const RecordBytes> header_;               // told last
    std::vector<std::shared_ptr<const StreamPiece>> taking_;  // in Take
  };

 private:
  void Retire() CMS_REQUIRES(lock_);
  void Forget() CMS_REQUIRES(lock_);
  void Collect(std::uint64_t& next, std::vector<std::shared_ptr<const StreamPiece>>& pieces);

  std::atomic<int> watchers_{0};
  mutable CMSCritical lock_;
  std::deque<std::shared_ptr<StreamPiece>> pieces_ CMS_GUARDED_BY(lock_);
  std::vector<std::shared_ptr<StreamPiece>> spare_ CMS_GUARDED_BY(lock_);
  std::size_t bytes_ CMS_GUARDED_BY(lock_) = 0;
  bool begun_ CMS_GUARDED_BY(lock_) = false;  // a key piece came
  std::uint64_t lastNumber_ CMS_GUARDED_BY(lock_) = 0;
  std::uint64_t lastKey_ CMS_GUARDED_BY(lock_) = 0;  // numbers; 0: none
  std::uint64_t keyBefore_ CMS_GUARDED_BY(lock_) = 0;
};

}  // namespace tools
