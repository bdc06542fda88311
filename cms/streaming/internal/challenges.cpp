#include "cms/streaming/internal/challenges.h"

#include <algorithm>

#include "cms/streaming/internal/text_scanner.h"

namespace cms {
namespace {

constexpr std::string_view kBlanks = " \t";

// Splits one header value into challenges. Parameters may be divided by blanks alone.
class ChallengeScanner {
 public:
  ChallengeScanner(std::string_view value, std::vector<Challenge>& challenges)
      : rest_(value), challenges_(challenges), first_(challenges.size()) {}

  void Read() {
    while (SkipToWord()) {
      const std::string_view word = TakeUntil(" \t,=\"");
      if (word.empty()) {  // a mark that belongs to nothing
        rest_.remove_prefix(1);
        continue;
      }
      Skip(kBlanks);
      if (rest_.starts_with('=')) {
        rest_.remove_prefix(1);
        Skip(kBlanks);
        AddParameter(word, TakeValue());
      } else {
        AddScheme(word);
      }
    }
  }

 private:
  bool SkipToWord() {
    const std::string_view skipped = Skip(" \t,");
    comma_ = comma_ || skipped.find(',') != std::string_view::npos;
    return !rest_.empty();
  }
  // Data that follows its scheme without a comma ("NTLM TlRMTVNT") is no scheme.
  void AddScheme(std::string_view word) {
    if (comma_ && challenges_.size() < kMaxChallenges) {
      challenges_.push_back({std::string(word), {}});
    }
    comma_ = false;
  }
  void AddParameter(std::string_view name, std::string_view value) {
    comma_ = true;  // a scheme may follow
    if (challenges_.size() > first_ && value.size() <= Challenge::kMaxValue &&
        challenges_.back().parameters.size() < Challenge::kMaxParameters) {
      challenges_.back().parameters.emplace_back(name, value);
    }
  }
  std::string_view TakeValue() {
    if (!rest_.starts_with('"')) {
      return TakeUntil(" \t,");
    }
    rest_.remove_prefix(1);
    std::size_t end = 0;
    while (end < rest_.size() && rest_[end] != '"') {
      end += rest_[end] == '\\' ? 2 : 1;
    }
    const std::string_view value = Take(end);
    Take(1);
    return value;
  }
  std::string_view Take(std::size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return taken;
  }
  std::string_view TakeUntil(std::string_view ends) { return Take(rest_.find_first_of(ends)); }
  std::string_view Skip(std::string_view characters) {
    return Take(rest_.find_first_not_of(characters));
  }

  std::string_view rest_;
  std::vector<Challenge>& challenges_;
  const std::size_t first_;  // parameters in front of a scheme belong to no challenge
  bool comma_ = true;
};

// The values of all headers of that name, folded lines joined (RFC 2616, 2.2).
std::vector<std::string> HeaderValues(std::string_view answer, std::string_view name) {
  std::vector<std::string> values;
  bool wanted = false;
  std::string_view line;
  while (TakeLine(answer, line) && !line.empty()) {
    if (kBlanks.find(line.front()) != std::string_view::npos) {
      if (wanted) values.back().append(" ").append(Trim(line));
      continue;
    }
    const std::size_t colon = line.find(':');
    wanted = colon != std::string_view::npos && EqualAnyCase(Trim(line.substr(0, colon)), name);
    if (wanted) values.emplace_back(Trim(line.substr(colon + 1)));
  }
  return values;
}

}  // namespace

const std::string* Challenge::Find(std::string_view name) const {
  const auto found = std::find_if(parameters.begin(), parameters.end(), [name](const auto& each) {
    return EqualAnyCase(each.first, name);
  });
  return found != parameters.end() ? &found->second : nullptr;
}

std::string_view Challenge::Value(std::string_view name) const {
  const std::string* const value = Find(name);
  return value != nullptr ? *value : std::string_view();
}

std::vector<Challenge> ReadChallenges(std::string_view answer) {
  std::vector<Challenge> challenges;
  for (const std::string& value : HeaderValues(answer, "WWW-Authenticate")) {
    ChallengeScanner(value, challenges).Read();
  }
  return challenges;
}

std::string Unescaped(std::string_view quoted) {
  std::string text;
  text.reserve(quoted.size());
  for (std::size_t i = 0; i < quoted.size(); ++i) {
    const bool escape = quoted[i] == '\\' && i + 1 < quoted.size() &&
                        (quoted[i + 1] == '"' || quoted[i + 1] == '\\');
    text += quoted[i += escape ? 1 : 0];
  }
  return text;
}

}  // namespace cms
