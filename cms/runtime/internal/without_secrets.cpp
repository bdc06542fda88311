#include "cms/runtime/internal/without_secrets.h"

#include <strings.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace cms {
namespace {

constexpr std::string_view kBlot = "***";
constexpr std::string_view kUrlEnds = " \t\r\n\"'<>";
constexpr std::size_t kLongestUrl = 2048;
constexpr std::size_t kLongestTag = 256;

bool EndsLike(std::string_view text, std::string_view lower) {
  return text.size() >= lower.size() &&
         strncasecmp(text.data() + text.size() - lower.size(), lower.data(), lower.size()) == 0;
}

bool IsDigits(std::string_view text) {
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

// Where the credentials of a URL end, behind its "://"; 0: it has none.
std::size_t EndOfCredentials(std::string_view rest) {
  rest = rest.substr(0, kLongestUrl);
  const std::string_view url = rest.substr(0, rest.find_first_of(kUrlEnds));
  const std::string_view authority = url.substr(0, url.find_first_of("/?#"));
  if (const std::size_t at = authority.rfind('@'); at != std::string_view::npos) {
    return at;
  }
  // "user:pass/word@host": what stands behind the colon would be a port otherwise.
  const std::size_t colon = authority.find(':');
  const bool isPort = colon == std::string_view::npos || authority.find(']') != std::string::npos ||
                      (colon + 1 < authority.size() && IsDigits(authority.substr(colon + 1)));
  const std::size_t last = url.rfind('@');
  return isPort || last == std::string_view::npos ? 0 : last;
}

bool IsSecretName(std::string_view name) {
  static constexpr std::array<std::string_view, 5> kNames = {"password", "passwd", "pass", "pwd",
                                                             "pw"};
  return std::any_of(kNames.begin(), kNames.end(),
                     [name](std::string_view each) { return EndsLike(name, each); });
}

bool IsSecretHeader(std::string_view name) {
  static constexpr std::array<std::string_view, 2> kNames = {"authorization", "cookie"};
  return std::any_of(kNames.begin(), kNames.end(),
                     [name](std::string_view each) { return EndsLike(name, each); });
}

bool IsNameByte(char c) {
  return c == '-' || c == '_' || c == '.' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
         (c >= 'A' && c <= 'Z');
}

// The name in front of the end of `text`.
std::string_view LastName(std::string_view text) {
  const auto begin =
      std::find_if_not(text.rbegin(), text.rend(), [](char c) { return IsNameByte(c); });
  return text.substr(text.size() - static_cast<std::size_t>(begin - text.rbegin()));
}

// The end of a header's value, the lines that continue it included.
std::size_t EndOfHeader(std::string_view text, std::size_t from) {
  std::size_t end = std::min(text.find('\n', from), text.size());
  while (end + 1 < text.size() && (text[end + 1] == ' ' || text[end + 1] == '\t')) {
    end = std::min(text.find('\n', end + 1), text.size());
  }
  return end;
}

// Walks over the text once; what it has passed is in `result_`.
class Blotter {
 public:
  explicit Blotter(std::string_view text) : text_(text) { result_.reserve(text.size() + 16); }

  std::string Run() {
    while (at_ < text_.size()) {
      const char c = text_[at_];
      result_.push_back(c);
      ++at_;
      if (c == '/' && EndsLike(text_.substr(0, at_), "://")) {
        Url();
      } else if (c == ':' && IsSecretHeader(LastName(text_.substr(0, at_ - 1)))) {
        Header();
      } else if (c == '=' && IsSecretName(LastName(text_.substr(0, at_ - 1)))) {
        BlotUpTo(text_.find_first_of("& \t\r\n\"'<>;,", at_));
      } else if (c == '>') {
        Element();
      }
    }
    return std::move(result_);
  }

 private:
  void BlotUpTo(std::size_t end) {
    end = std::min(end, text_.size());
    if (end > at_) {
      result_ += kBlot;
      at_ = end;
    }
  }

  void Url() {
    if (const std::size_t end = EndOfCredentials(text_.substr(at_)); end > 0) {
      BlotUpTo(at_ + end);
    }
  }

  // What kind of login it is stays, as that helps.
  void Header() {
    const std::size_t end = EndOfHeader(text_, at_);
    for (const std::string_view word : {" ", "Basic ", "Digest "}) {
      if (text_.substr(at_).starts_with(word)) {
        result_ += word;
        at_ += word.size();
      }
    }
    const std::size_t last = end > at_ && text_[end - 1] == '\r' ? end - 1 : end;
    BlotUpTo(last);
  }

  void Element() {
    const std::size_t far = at_ - 1 - std::min(at_ - 1, kLongestTag);
    const std::string_view before = text_.substr(far, at_ - 1 - far);
    const std::size_t begin = before.rfind('<');
    if (begin == std::string_view::npos || before.ends_with('/')) {
      return;
    }
    const std::string_view tag = before.substr(begin + 1);
    const std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n"));
    if (!name.starts_with('/') && IsSecretName(name)) {
      BlotUpTo(text_.find('<', at_));
    }
  }

  const std::string_view text_;
  std::size_t at_ = 0;
  std::string result_;
};

}  // namespace

std::string WithoutSecrets(std::string_view text) {
  return Blotter(text).Run();
}

}  // namespace cms
