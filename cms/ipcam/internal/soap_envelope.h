// The SOAP 1.2 envelopes of ONVIF requests, and the texts that go into them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace cms {

// `text` as character data or as the value of an attribute (XML 1.0, section 2.4). Characters that
// no XML document may hold are left out.
std::wstring XmlEscaped(std::wstring_view text);
// The reverse: the five named entities and character references; others stay as they are.
std::wstring XmlUnescaped(std::wstring_view text);

// A number as ONVIF writes it, with '.' whatever the process's locale says.
std::wstring Decimal(double number, int digits);

// "2024-02-29T12:00:00Z" for seconds since 1970-01-01 UTC.
std::wstring UtcText(std::int64_t seconds);

// SHA-1 (FIPS 180) of nonce, created text and password, each of at most 255 bytes, in Base64: the
// password digest of the WS-Security UsernameToken profile 1.0. Empty when the crypto library
// refuses it.
std::string PasswordDigest(std::string_view nonce, std::string_view created,
                           std::string_view password);

// What signs a request; the texts are not escaped yet.
struct UsernameToken {
  std::wstring userName;
  std::wstring digest;
  std::wstring nonce;
  std::wstring created;
};

// `body`, and `headers` behind the signature, are XML that may use the prefixes tt, tds, trt, timg,
// tptz, tev, wsnt, wsa5 and xsi.
std::wstring SignedEnvelope(const UsernameToken& token, std::wstring_view body,
                            std::wstring_view headers = {});
std::wstring ClockEnvelope();  // unsigned: GetSystemDateAndTime

}  // namespace cms
