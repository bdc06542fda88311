#include "cms/streaming/internal/digest_line.h"

#include <initializer_list>

namespace cms {
namespace {

std::string Joined(std::initializer_list<std::string_view> texts) {
  std::string joined;
  for (const std::string_view text : texts) {
    joined.append(text).append(":");
  }
  joined.pop_back();
  return joined;
}

}  // namespace

std::string DigestResponse(const DigestInput& input) {
  const auto hash = input.hash;
  std::string ha1 = hash(Joined({input.username, input.realm, input.password}));
  if (input.session) {
    ha1 = hash(Joined({ha1, input.nonce, input.cnonce}));
  }
  const std::string request = Joined({input.method, input.uri});
  if (input.qop.empty()) return hash(Joined({ha1, input.nonce, hash(request)}));
  const std::string ha2 = hash(input.qop == "auth-int" ? Joined({request, hash({})}) : request);
  return hash(Joined({ha1, input.nonce, input.nc, input.cnonce, input.qop, ha2}));
}

std::string DigestLine(const DigestTexts& texts, std::string_view more) {
  std::string line = "Authorization: Digest username=\"";
  line.append(texts.username).append("\", realm=\"").append(texts.realm);
  line.append("\", nonce=\"").append(texts.nonce).append("\", uri=\"").append(texts.uri);
  line.append("\", response=\"").append(texts.response).append("\"").append(more);
  return WithoutLineEnds(line) + "\r\n";
}

std::string WithoutLineEnds(std::string_view text) {
  std::string result;
  result.reserve(text.size());
  for (const char c : text) {
    if (c != '\r' && c != '\n') result += c;
  }
  return result;
}

std::string Escaped(std::string_view text, std::string_view characters) {
  std::string result;
  for (const char c : text) {
    if (characters.find(c) != std::string_view::npos) result += '\\';
    result += c;
  }
  return result;
}

}  // namespace cms
