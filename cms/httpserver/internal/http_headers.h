// The header blocks that the HTTP server sends.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace cms {

// UTC, as in "Tue, 04 Nov 2014 08:49:37 GMT" and a line end. Right for the years 1000 to 9999.
std::string HttpDate(std::int64_t wallSeconds);

// What stands behind "HTTP/1.1 ": of an HttpStatusIndex, empty for any other; and of a status code
// from 200 to 599.
std::string_view StatusText(std::uint32_t index);
std::string CodeText(std::uint32_t code);

// The index that stands for a status code, or the code itself where none does.
std::uint32_t IndexOfCode(std::uint32_t code);

// The values of WWW-Authenticate. The first one's nonce is the digest of the date.
std::string DateChallenge(std::int64_t wallSeconds);
// Where SHA-256 is offered these are two headers' values, the stronger one first (RFC 7616, 3.3).
std::string NonceChallenge(std::string_view nonce, bool stale, bool sha256);

bool IsHeaderName(std::string_view text);
// Whether a text may be the value of a header: it has no control characters.
bool IsHeaderValue(std::string_view text);

struct AnswerHead {
  std::string_view status = "200 OK";
  bool keepAlive = true;
  std::string_view contentType;  // empty: "text/html" where there is a body
  std::string_view challenge;    // empty: none
  std::string_view others;       // whole lines, each with its end
};

// The header block of an answer, made at `wallSeconds`. A length is told only when there is a body.
std::string HeaderBlock(const AnswerHead& head, std::size_t bodyLength, std::int64_t wallSeconds);

// The header block in front of a file of that length; neither its status nor its challenge count.
std::string FileHeaderBlock(const AnswerHead& head, std::int64_t length,
                            std::string_view lastModified, std::int64_t wallSeconds);

}  // namespace cms
