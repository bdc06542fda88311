#include "cms/ipcam/internal/soap_envelope.h"

#include <openssl/evp.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <ctime>
#include <iterator>
#include <memory>

#include "cms/runtime/digest.h"

namespace cms {
namespace {

// The declarations that cameras' own code generators put into every envelope: some cameras know a
// prefix only by its name.
constexpr std::wstring_view kOpening =
    L"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n"
    L"<SOAP-ENV:Envelope"
    L" xmlns:SOAP-ENV=\"http://www.w3.org/2003/05/soap-envelope\""
    L" xmlns:SOAP-ENC=\"http://www.w3.org/2003/05/soap-encoding\""
    L" xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\""
    L" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\""
    L" xmlns:c14n=\"http://www.w3.org/2001/10/xml-exc-c14n#\""
    L" xmlns:wsu=\"http://docs.oasis-open.org/wss/2004/01/"
    L"oasis-200401-wss-wssecurity-utility-1.0.xsd\""
    L" xmlns:ds=\"http://www.w3.org/2000/09/xmldsig#\""
    L" xmlns:wsse=\"http://docs.oasis-open.org/wss/2004/01/"
    L"oasis-200401-wss-wssecurity-secext-1.0.xsd\""
    L" xmlns:wsa=\"http://www.w3.org/2005/08/addressing\""
    L" xmlns:wsa5=\"http://www.w3.org/2005/08/addressing\""
    L" xmlns:wstop=\"http://docs.oasis-open.org/wsn/t-1\""
    L" xmlns:xm=\"http://www.w3.org/2005/05/xmlmime\""
    L" xmlns:tt=\"http://www.onvif.org/ver10/schema\""
    L" xmlns:wsbf2=\"http://docs.oasis-open.org/wsrf/bf-2\""
    L" xmlns:wst1=\"http://docs.oasis-open.org/wsrf/r-2\""
    L" xmlns:ns10=\"http://www.onvif.org/ver10/events/wsdl/SubscriptionManagerBinding\""
    L" xmlns:ns3=\"http://www.onvif.org/ver10/events/wsdl/CreatePullPointBinding\""
    L" xmlns:ns4=\"http://www.onvif.org/ver10/events/wsdl/EventBinding\""
    L" xmlns:tev=\"http://www.onvif.org/ver10/events/wsdl\""
    L" xmlns:ns5=\"http://www.onvif.org/ver10/events/wsdl/NotificationConsumerBinding\""
    L" xmlns:ns6=\"http://www.onvif.org/ver10/events/wsdl/NotificationProducerBinding\""
    L" xmlns:ns7=\"http://www.onvif.org/ver10/events/wsdl/PausableSubscriptionManagerBinding\""
    L" xmlns:ns8=\"http://www.onvif.org/ver10/events/wsdl/PullPointBinding\""
    L" xmlns:ns9=\"http://www.onvif.org/ver10/events/wsdl/PullPointSubscriptionBinding\""
    L" xmlns:wsnt=\"http://docs.oasis-open.org/wsn/b-2\""
    L" xmlns:tds=\"http://www.onvif.org/ver10/device/wsdl\""
    L" xmlns:timg=\"http://www.onvif.org/ver20/imaging/wsdl\""
    L" xmlns:tptz=\"http://www.onvif.org/ver20/ptz/wsdl\""
    L" xmlns:trt=\"http://www.onvif.org/ver10/media/wsdl\">"
    L"<SOAP-ENV:Header><wsse:Security SOAP-ENV:mustUnderstand=\"true\"><wsse:UsernameToken>";

constexpr std::wstring_view kPassword =
    L"<wsse:Password Type=\"http://docs.oasis-open.org/wss/2004/01/"
    L"oasis-200401-wss-username-token-profile-1.0#PasswordDigest\">";

struct Entity {
  wchar_t character;
  std::wstring_view text;
};
constexpr Entity kEntities[] = {
    {L'&', L"&amp;"}, {L'<', L"&lt;"}, {L'>', L"&gt;"}, {L'"', L"&quot;"}, {L'\'', L"&apos;"}};

// XML 1.0, production 2.
bool IsXmlCharacter(wchar_t c) {
  return c == L'\t' || c == L'\n' || c == L'\r' || (c >= 0x20 && c <= 0xD7FF) ||
         (c >= 0xE000 && c <= 0xFFFD) || (c >= 0x10000 && c <= 0x10FFFF);
}

// The character of "&#65;" or "&#x41;" without "&#" and ";"; 0 when it is none.
wchar_t ReferencedCharacter(std::wstring_view digits) {
  const bool hexadecimal = digits.starts_with(L'x');
  if (hexadecimal) {
    digits.remove_prefix(1);
  }
  std::string narrow;
  for (const wchar_t c : digits) {
    narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  }
  std::uint32_t code = 0;
  const char* end = narrow.data() + narrow.size();
  const auto [stop, error] = std::from_chars(narrow.data(), end, code, hexadecimal ? 16 : 10);
  if (error != std::errc() || stop != end) {
    return 0;
  }
  const auto character = static_cast<wchar_t>(code);
  return IsXmlCharacter(character) ? character : L'\0';
}

}  // namespace

std::wstring XmlEscaped(std::wstring_view text) {
  std::wstring escaped;
  escaped.reserve(text.size());
  for (const wchar_t c : text) {
    const auto* entity = std::ranges::find(kEntities, c, &Entity::character);
    if (entity != std::end(kEntities)) {
      escaped += entity->text;
    } else if (IsXmlCharacter(c)) {
      escaped += c;
    }
  }
  return escaped;
}

std::wstring XmlUnescaped(std::wstring_view text) {
  constexpr std::size_t kLongestReference = 10;  // "&#1114111;"
  std::wstring plain;
  plain.reserve(text.size());
  for (std::size_t i = 0; i < text.size();) {
    const std::wstring_view rest = text.substr(i);
    std::size_t used = 1;
    wchar_t character = rest.front();
    if (character == L'&') {
      const std::size_t semicolon = rest.substr(0, kLongestReference).find(L';');
      if (rest.starts_with(L"&#") && semicolon != std::wstring_view::npos) {
        if (const wchar_t c = ReferencedCharacter(rest.substr(2, semicolon - 2)); c != 0) {
          character = c;
          used = semicolon + 1;
        }
      }
      for (const Entity& entity : kEntities) {
        if (rest.starts_with(entity.text)) {
          character = entity.character;
          used = entity.text.size();
        }
      }
    }
    plain += character;
    i += used;
  }
  return plain;
}

std::wstring Decimal(double number, int digits) {
  char text[512];  // the largest double has 309 digits in front of the point
  const auto [end, error] =
      std::to_chars(std::begin(text), std::end(text), number, std::chars_format::fixed, digits);
  return error == std::errc() ? std::wstring(text, end) : std::wstring(L"0");
}

std::wstring UtcText(std::int64_t seconds) {
  const std::time_t instant = seconds;
  std::tm fields{};
  wchar_t text[64];
  if (gmtime_r(&instant, &fields) == nullptr) {
    return {};
  }
  return {text, std::wcsftime(text, std::size(text), L"%Y-%m-%dT%H:%M:%SZ", &fields)};
}

std::string PasswordDigest(std::string_view nonce, std::string_view created,
                           std::string_view password) {
  constexpr std::size_t kMaxBytes = 255;
  std::string all;
  for (const std::string_view part : {nonce, created, password}) {
    all += part.substr(0, kMaxBytes);
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  if (EVP_Digest(all.data(), all.size(), digest, &size, EVP_sha1(), nullptr) != 1) {
    return {};
  }
  return Base64({digest, size});
}

std::wstring SignedEnvelope(const UsernameToken& token, std::wstring_view body,
                            std::wstring_view headers) {
  std::wstring envelope;
  envelope.reserve(kOpening.size() + headers.size() + body.size() + 1024);
  envelope += kOpening;
  envelope += L"<wsse:Username>" + XmlEscaped(token.userName) + L"</wsse:Username>";
  envelope += kPassword;
  envelope += token.digest + L"</wsse:Password><wsse:Nonce>" + token.nonce +
              L"</wsse:Nonce><wsu:Created>" + token.created +
              L"</wsu:Created></wsse:UsernameToken></wsse:Security>";
  envelope += headers;
  envelope += L"</SOAP-ENV:Header><SOAP-ENV:Body>";
  envelope += body;
  envelope += L"</SOAP-ENV:Body></SOAP-ENV:Envelope>";
  return envelope;
}

std::wstring ClockEnvelope() {
  return L"<s:Envelope xmlns:s=\"http://www.w3.org/2003/05/soap-envelope\">"
         L"<s:Body xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\""
         L" xmlns:xsd=\"http://www.w3.org/2001/XMLSchema\">"
         L"<GetSystemDateAndTime xmlns=\"http://www.onvif.org/ver10/device/wsdl\"/>"
         L"</s:Body></s:Envelope>";
}

}  // namespace cms
