#include "fleet/peer_recordings.h"

#include <algorithm>
#include <cstddef>
#include <nlohmann/json.hpp>
#include <utility>

namespace cms::fleet {
namespace {

using nlohmann::json;

constexpr std::int64_t kFrame = 1;  // so that a span's last frame is in it
// Later than any recording, and far from where sums overflow.
constexpr std::int64_t kLatest = 100'000'000'000'000;
// More than a recorder has of one site in years; each piece costs about a hundred bytes.
constexpr std::size_t kMostPieces = 1'000'000;

using Tokens = std::vector<std::pair<std::int64_t, ClaimToken>>;  // each from its time on

// Throws for a fraction, which get would cast whatever its size.
std::int64_t WholeNumber(const json& value) {
  return value.get_ref<const json::number_integer_t&>();
}

bool AddSpan(const json& span, const HeldPiece& file, const Tokens& tokens,
             std::vector<HeldPiece>& pieces) {
  const std::int64_t begin = WholeNumber(span.at(0));
  const std::int64_t last = WholeNumber(span.at(1));
  if (begin < 0 || last > kLatest) {
    return false;
  }
  // The first one that ends behind the begin.
  auto token = std::upper_bound(
      tokens.begin(), tokens.end(), begin,
      [](std::int64_t time, const Tokens::value_type& each) { return time < each.first; });
  token -= token == tokens.begin() ? 0 : 1;
  for (; token != tokens.end() && token->first < last + kFrame; ++token) {
    const auto next = token + 1;
    const std::int64_t from = std::max(begin, token->first);
    const std::int64_t to =
        next != tokens.end() ? std::min(last + kFrame, next->first) : last + kFrame;
    if (from < to) {
      if (pieces.size() >= kMostPieces) {
        return false;
      }
      pieces.push_back({file.recorder, file.file, from, to, token->second});
    }
  }
  return true;
}

bool AddFiles(const json& answer, const std::string& recorder, std::vector<HeldPiece>& pieces) {
  Tokens tokens{{0, 0}};
  for (const json& each : answer.at("tokens")) {
    const std::int64_t time = WholeNumber(each.at(0));
    // Where a clock was set back the later claim counts.
    while (!tokens.empty() && tokens.back().first >= time) {
      tokens.pop_back();
    }
    tokens.emplace_back(time, each.at(1).get_ref<const json::number_unsigned_t&>());
  }
  for (const json& file : answer.at("files")) {
    const HeldPiece named{recorder, file.at("name").get<std::string>()};
    for (const json& span : file.at("spans")) {
      if (!AddSpan(span, named, tokens, pieces)) {
        return false;
      }
    }
  }
  return true;
}

}  // namespace

std::optional<std::vector<HeldPiece>> ReadPeerRecordings(std::string_view answer,
                                                         const std::string& recorder) {
  std::vector<HeldPiece> pieces;
  try {
    if (AddFiles(json::parse(answer), recorder, pieces)) {
      return pieces;
    }
  } catch (const json::exception&) {
    // As what else cannot be read.
  }
  return std::nullopt;
}

}  // namespace cms::fleet
