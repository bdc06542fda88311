#include "tools/serve/stream_ring.h"

#include <utility>

#include "cms/runtime/clock.h"

namespace tools {
namespace {

// As many pieces as a second has; more memory is given back.
constexpr std::size_t kMostSpare = 64;

}  // namespace

std::shared_ptr<StreamPiece> StreamRing::Blank() {
  {
    ScopeLock lock(lock_);
    if (!spare_.empty()) {
      std::shared_ptr<StreamPiece> piece = std::move(spare_.back());
      spare_.pop_back();
      piece->bytes.clear();
      piece->header.reset();
      return piece;
    }
  }
  return std::make_shared<StreamPiece>();
}

// Drops the first piece.
void StreamRing::Retire() {
  std::shared_ptr<StreamPiece>& first = pieces_.front();
  bytes_ -= first->bytes.size();
  if (first.use_count() == 1 && spare_.size() < kMostSpare) {
    spare_.push_back(std::move(first));
  }
  pieces_.pop_front();
}

void StreamRing::Forget() {
  pieces_.clear();
  spare_.clear();
  bytes_ = 0;
  begun_ = false;
  lastKey_ = 0;
  keyBefore_ = 0;
}

void StreamRing::Add(std::shared_ptr<StreamPiece> piece) {
  ScopeLock lock(lock_);
  begun_ = begun_ || piece->key;
  if (!begun_) {
    return;
  }
  piece->number = ++lastNumber_;
  piece->tick = cms::TickMilliseconds();
  if (piece->key) {
    keyBefore_ = std::exchange(lastKey_, lastNumber_);
  }
  bytes_ += piece->bytes.size();
  pieces_.push_back(std::move(piece));
  const std::uint64_t now = pieces_.back()->tick;
  while (bytes_ > kMostBytes ||
         (pieces_.front()->number < keyBefore_ && now - pieces_.front()->tick > kLateMs)) {
    Retire();
    if (pieces_.empty()) {
      break;
    }
  }
  if (pieces_.empty() || pieces_.front()->number > lastKey_) {
    lastKey_ = 0;  // too much between two key pieces: watchers wait for the next
  }
}

void StreamRing::Collect(std::uint64_t& next,
                         std::vector<std::shared_ptr<const StreamPiece>>& pieces) {
  ScopeLock lock(lock_);
  if (pieces_.empty() || next > lastNumber_) {
    return;
  }
  const std::uint64_t first = pieces_.front()->number;
  const bool late = next >= first && next < lastKey_ &&
                    pieces_.back()->tick - pieces_[next - first]->tick > kLateMs;
  if (next < first || late) {
    next = lastKey_;
  }
  if (next == 0) {
    return;
  }
  for (; next <= lastNumber_; ++next) {
    pieces.push_back(pieces_[next - first]);
  }
}

// What was made for earlier watchers is old.
StreamRing::Watch::Watch(StreamRing& ring) : ring_(&ring) {
  ScopeLock lock(ring.lock_);
  if (ring.watchers_.fetch_add(1, std::memory_order_relaxed) == 0) {
    ring.Forget();
  }
}

StreamRing::Watch::~Watch() {
  ScopeLock lock(ring_->lock_);
  if (ring_->watchers_.fetch_sub(1, std::memory_order_relaxed) == 1) {
    ring_->Forget();
  }
}

bool StreamRing::Watch::Take(RecordBytes& to) {
  ring_->Collect(next_, taking_);
  for (const auto& piece : taking_) {
    if (piece->header != nullptr && piece->header != header_) {
      to.insert(to.end(), piece->header->begin(), piece->header->end());
      header_ = piece->header;
    }
    to.insert(to.end(), piece->bytes.begin(), piece->bytes.end());
  }
  if (taking_.empty()) {
    return false;
  }
  ScopeLock lock(ring_->lock_);  // who is given the memory next sees that it was read
  taking_.clear();
  return true;
}

}  // namespace tools
