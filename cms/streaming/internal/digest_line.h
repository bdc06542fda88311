// What every Digest answer is made of (RFC 7616, RFC 2617), with and without "qop".
#pragma once

#include <string>
#include <string_view>

#include "cms/runtime/digest.h"

namespace cms {

// The texts that the digest covers, without the marks and escapes of a header.
struct DigestInput {
  std::string_view username;
  std::string_view password;
  std::string_view realm;
  std::string_view nonce;
  std::string_view method;
  std::string_view uri;
  std::string_view qop = {};  // "auth", "auth-int" of a request without a body, or empty
  std::string_view nc = {};   // these two count with a qop only
  std::string_view cnonce = {};
  std::string (*hash)(std::string_view) = &Md5Hex;
  bool session = false;  // "-sess": of the first nonces of both sides; needs a qop
};

// The "response" in lower-case hexadecimal characters: 32 of MD5, 64 of SHA-256.
std::string DigestResponse(const DigestInput& input);

// The five parameters that every answer has, as they stand between the quotation marks of the line.
struct DigestTexts {
  std::string_view username;
  std::string_view realm;
  std::string_view nonce;
  std::string_view uri;
  std::string_view response;
};

// "Authorization: Digest ...", with `more` behind the five, ended by CR LF. CR and LF inside the
// texts are left out, so that none can add a line.
std::string DigestLine(const DigestTexts& texts, std::string_view more = {});

std::string WithoutLineEnds(std::string_view text);

// With a backslash in front of each of these characters.
std::string Escaped(std::string_view text, std::string_view characters);

}  // namespace cms
