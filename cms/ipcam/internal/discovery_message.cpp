#include "cms/ipcam/internal/discovery_message.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdio>
#include <ctime>

#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/soap_envelope.h"
#include "cms/runtime/text.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

// The text between the first ">" behind `tag` and the next "<".
std::string_view Content(std::string_view answer, std::string_view tag) {
  const std::size_t found = answer.find(tag);
  const std::size_t begin = answer.find('>', found);
  if (found == std::string_view::npos || begin == std::string_view::npos) {
    return {};
  }
  const std::size_t end = answer.find('<', begin);
  return end == std::string_view::npos ? std::string_view()
                                       : answer.substr(begin + 1, end - begin - 1);
}

std::string Unescaped(std::string_view text) {
  return Utf8FromWide(XmlUnescaped(WideFromUtf8(text)));
}

int HexDigit(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  const char lower = static_cast<char>(c | 0x20);
  return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// Scopes are URIs: "IP%20Camera" is "IP Camera" (RFC 3986, section 2.1).
std::string PercentDecoded(std::string_view text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const int high = text[i] == '%' && i + 2 < text.size() ? HexDigit(text[i + 1]) : -1;
    const int low = high >= 0 ? HexDigit(text[i + 2]) : -1;
    if (low >= 0) {
      plain += static_cast<char>(high * 16 + low);
      i += 2;
    } else {
      plain += text[i];
    }
  }
  return plain;
}

// What follows onvif://www.onvif.org/KIND/ up to the next blank, of the first scope of that kind,
// which devices write as they like ("/Name/").
std::string ScopeValue(std::string_view scopes, std::string_view kind) {
  const std::string prefix = "onvif://www.onvif.org/" + std::string(kind) + "/";
  const auto* const found =
      std::search(scopes.begin(), scopes.end(), prefix.begin(), prefix.end(), [](char a, char b) {
        return EqualAnyCase({&a, 1}, {&b, 1});
      });
  if (found == scopes.end()) {
    return {};
  }
  const std::string_view value =
      scopes.substr(static_cast<std::size_t>(found - scopes.begin()) + prefix.size());
  return Utf8FromWide(
      Plain(WideFromUtf8(PercentDecoded(value.substr(0, value.find_first_of(kBlanks))))));
}

bool HasPtzScope(std::string_view scopes) {
  constexpr std::string_view kType = "onvif://www.onvif.org/type/";
  for (std::size_t at = scopes.find(kType); at != std::string_view::npos;
       at = scopes.find(kType, at + 1)) {
    const std::string_view type = scopes.substr(at + kType.size());
    if (EqualAnyCase(type.substr(0, type.find_first_of(kBlanks)), "ptz")) {
      return true;
    }
  }
  return false;
}

// An IPv4 address or a host name that others can reach: IPv6 literals are none of ours.
bool IsUsableHost(std::string_view host) {
  return !host.empty() && !host.starts_with("169.254") && std::ranges::all_of(host, [](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '.' ||
           c == '-' || c == '_';
  });
}

bool IsPort(std::string_view text) {
  int port = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), port);
  return error == std::errc() && end == text.data() + text.size() && port > 0 && port <= 65535;
}

// The first usable URL of the list that begins with `scheme`; false when there is none.
bool FindServiceAddress(std::string_view urls, std::string_view scheme, std::string_view usualPort,
                        stDiscoveredDevice& device) {
  for (std::size_t at = urls.find(scheme); at != std::string_view::npos; at = urls.find(scheme)) {
    urls.remove_prefix(at + scheme.size());
    std::string_view place = urls.substr(0, urls.find_first_of(kBlanks));
    place = place.substr(0, place.find('/'));
    const std::size_t colon = place.find(':');
    const std::string_view host = place.substr(0, colon);
    const std::string_view port =
        colon == std::string_view::npos ? usualPort : place.substr(colon + 1);
    if (IsUsableHost(host) && IsPort(port)) {
      device.address = host;
      device.port = port;
      return true;
    }
  }
  return false;
}

}  // namespace

std::string ProbeMessageId(std::int64_t seconds, std::string_view end) {
  const std::time_t instant = seconds;
  std::tm now{};
  if (gmtime_r(&instant, &now) == nullptr) {
    return std::string(end);
  }
  const int month = now.tm_mon + 1;
  // The month, not the day, is the first factor: devices tell probes apart by the whole identifier.
  const unsigned long long count = static_cast<unsigned long long>(
      ((static_cast<std::int64_t>(month) * 24 + now.tm_hour) * 60 + now.tm_min) * 60 + now.tm_sec);
  char text[128];
  std::snprintf(text, sizeof text, "%02d%06llu-%02d%02d-%02d%02d-%04d-%s", now.tm_sec, count,
                now.tm_hour, now.tm_min, month, now.tm_mday, now.tm_year + 1900,
                std::string(end).c_str());
  return text;
}

std::string ProbeMessage(std::string_view messageId) {
  std::string message =
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
      "<e:Envelope xmlns:e=\"http://www.w3.org/2003/05/soap-envelope\""
      " xmlns:w=\"http://schemas.xmlsoap.org/ws/2004/08/addressing\""
      " xmlns:d=\"http://schemas.xmlsoap.org/ws/2005/04/discovery\">"
      "<e:Header><w:MessageID>uuid:";
  message += messageId;
  message +=
      "</w:MessageID>"
      "<w:To e:mustUnderstand=\"true\">urn:schemas-xmlsoap-org:ws:2005:04:discovery</w:To>"
      "<w:Action e:mustUnderstand=\"true\">"
      "http://schemas.xmlsoap.org/ws/2005/04/discovery/Probe</w:Action>"
      "</e:Header><e:Body><d:Probe><d:Types></d:Types><d:Scopes></d:Scopes></d:Probe></e:Body>"
      "</e:Envelope>";
  return message;
}

std::vector<std::string_view> SplitProbeMatches(std::string_view answer) {
  constexpr std::string_view kEnd = "ProbeMatch>";
  std::vector<std::string_view> matches;
  for (std::size_t at = answer.find(kEnd); at != std::string_view::npos;
       at = answer.find(kEnd, at)) {
    at += kEnd.size();
    // "</d:ProbeMatch>" ends one; "<d:ProbeMatch>" begins it.
    const std::size_t bracket = answer.substr(0, at).rfind('<');
    if (bracket != std::string_view::npos && answer.substr(bracket).starts_with("</")) {
      matches.push_back(answer.substr(0, at));
      answer.remove_prefix(at);
      at = 0;
    }
  }
  if (matches.empty()) {
    matches.push_back(answer);
  }
  return matches;
}

std::optional<stDiscoveredDevice> ParseProbeMatch(std::string_view answer, bool tlsToo) {
  stDiscoveredDevice device;
  if (answer.find("wsdp:Device pub:Computer") != std::string_view::npos) {
    return std::nullopt;
  }
  const std::string urls = Unescaped(Content(answer, ":XAddrs"));
  if (!FindServiceAddress(urls, "http://", "80", device)) {
    device.tls = tlsToo && FindServiceAddress(urls, "https://", "443", device);
    if (!device.tls) {
      return std::nullopt;
    }
  }
  const std::string scopes = Unescaped(Content(answer, ":Scopes"));
  device.hardware = ScopeValue(scopes, "hardware");
  if (device.hardware.empty()) {
    device.hardware = ScopeValue(scopes, "model");
  }
  device.name = ScopeValue(scopes, "name");
  if (device.name.empty()) {
    device.name = "IP Camera";
  }
  device.type = HasPtzScope(scopes) ? "PTZ" : device.hardware;
  return device;
}

}  // namespace cms
