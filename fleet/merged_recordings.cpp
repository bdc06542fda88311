#include "fleet/merged_recordings.h"

#include <algorithm>
#include <set>

namespace cms::fleet {
namespace {

constexpr std::int64_t kSeam = 1'000;

bool IsBetter(const HeldPiece& one, const HeldPiece& other) {
  return one.token != other.token ? one.token > other.token
         : one.recorder != other.recorder
             ? one.recorder < other.recorder
             : one.from > other.from;  // the file that begins later takes over from the one before
}

}  // namespace

std::vector<HeldPiece> MergePieces(const std::vector<HeldPiece>& pieces, std::int64_t from,
                                   std::int64_t to) {
  std::set<std::int64_t> edges;
  for (const HeldPiece& piece : pieces) {
    edges.insert(std::clamp(piece.from, from, to));
    edges.insert(std::clamp(piece.to, from, to));
  }
  std::vector<HeldPiece> merged;
  for (auto edge = edges.begin(); edge != edges.end() && std::next(edge) != edges.end(); ++edge) {
    const std::int64_t begin = *edge;
    const std::int64_t end = *std::next(edge);
    const HeldPiece* best = nullptr;
    for (const HeldPiece& piece : pieces) {
      if (piece.from <= begin && piece.to >= end && (best == nullptr || IsBetter(piece, *best))) {
        best = &piece;
      }
    }
    if (best == nullptr) {
      continue;
    }
    if (!merged.empty() && merged.back().to == begin && merged.back().file == best->file &&
        merged.back().recorder == best->recorder) {
      merged.back().to = end;
      merged.back().token = best->token;
    } else {
      merged.push_back({best->recorder, best->file, begin, end, best->token});
    }
  }
  return merged;
}

std::vector<AwayHours> MissingOf(const std::vector<AwayHours>& away,
                                 const std::vector<HeldPiece>& merged, std::int64_t from,
                                 std::int64_t to) {
  std::vector<AwayHours> missing;
  const auto add = [&](const AwayHours& hours, std::int64_t begin, std::int64_t end) {
    if (end - begin < kSeam) {
      return;
    }
    if (!missing.empty() && missing.back().recorder == hours.recorder &&
        missing.back().to == begin) {
      missing.back().to = end;
    } else {
      missing.push_back({hours.recorder, begin, end});
    }
  };
  for (const AwayHours& hours : away) {
    std::int64_t reached = std::max(hours.from, from);
    const std::int64_t end = std::min(hours.to, to);
    for (const HeldPiece& piece : merged) {
      if (piece.to > reached && piece.from < end) {
        add(hours, reached, piece.from);
        reached = std::max(reached, piece.to);
      }
    }
    add(hours, reached, end);
  }
  return missing;
}

}  // namespace cms::fleet
