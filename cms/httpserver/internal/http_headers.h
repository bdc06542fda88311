// The header blocks that the HTTP server sends.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace cms {

// UTC, as in "Tue, 04 Nov 2014 08:49:37 GMT" and a line end. Right for the years 1000 to 9999.
std::string HttpDate(std::int64_t wallSeconds);

// The header block of an answer, made at `wallSeconds`. Type and length are told only when there is
// a body; a status that asks for authorization brings a challenge, whose nonce is the digest of the
// date.
std::string HeaderBlock(std::uint32_t status, std::size_t bodyLength, bool keepAlive,
                        std::int64_t wallSeconds);

// The header block in front of a file of that length.
std::string FileHeaderBlock(std::int64_t length, std::string_view lastModified,
                            std::int64_t wallSeconds);

}  // namespace cms
