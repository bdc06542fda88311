#include "cms/httpserver/internal/http_headers.h"

#include <algorithm>
#include <array>
#include <chrono>

#include "cms/runtime/digest.h"

namespace cms {
namespace {

constexpr std::string_view kServer = "Server: CMS-HTTPServer\r\n";

constexpr std::string_view kHtml = "text/html";

// 901 and 902 are this server's own.
constexpr std::array<std::string_view, 9> kStatusTexts = {
    "200 OK",           "400 Bad Request", "401 Unauthorized",        "401 Unauthorized",
    "403 Forbidden",    "404 Not Found",   "503 Service Unavailable", "901 Not in white list",
    "902 In black list"};

constexpr std::array<std::string_view, 22> kOtherStatuses = {"201 Created",
                                                             "202 Accepted",
                                                             "204 No Content",
                                                             "206 Partial Content",
                                                             "301 Moved Permanently",
                                                             "302 Found",
                                                             "303 See Other",
                                                             "304 Not Modified",
                                                             "307 Temporary Redirect",
                                                             "308 Permanent Redirect",
                                                             "405 Method Not Allowed",
                                                             "406 Not Acceptable",
                                                             "408 Request Timeout",
                                                             "409 Conflict",
                                                             "410 Gone",
                                                             "413 Content Too Large",
                                                             "415 Unsupported Media Type",
                                                             "416 Range Not Satisfiable",
                                                             "429 Too Many Requests",
                                                             "431 Request Header Fields Too Large",
                                                             "500 Internal Server Error",
                                                             "501 Not Implemented"};

std::string_view ConnectionLine(bool keepAlive) {
  return keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
}

void AppendDigits(std::string& text, std::int64_t value, int digits) {
  std::int64_t unit = 1;
  for (int i = 1; i < digits; ++i) {
    unit *= 10;
  }
  for (; unit > 0; unit /= 10) {
    text += static_cast<char>('0' + value / unit % 10);
  }
}

}  // namespace

std::string HttpDate(std::int64_t wallSeconds) {
  static constexpr std::string_view kDays = "SunMonTueWedThuFriSat";
  static constexpr std::string_view kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
  using std::chrono::days;
  const std::chrono::sys_seconds now{std::chrono::seconds(wallSeconds)};
  const auto day = std::chrono::floor<days>(now);
  const std::chrono::year_month_day date(day);
  const std::chrono::hh_mm_ss time(now - day);
  std::string text;
  text.reserve(40);
  text += kDays.substr(3 * std::chrono::weekday(day).c_encoding(), 3);
  text += ", ";
  AppendDigits(text, static_cast<unsigned>(date.day()), 2);
  text += ' ';
  text += kMonths.substr(3 * (static_cast<unsigned>(date.month()) - 1), 3);
  text += ' ';
  AppendDigits(text, std::int64_t{static_cast<int>(date.year())}, 4);
  text += ' ';
  AppendDigits(text, time.hours().count(), 2);
  text += ':';
  AppendDigits(text, time.minutes().count(), 2);
  text += ':';
  AppendDigits(text, time.seconds().count(), 2);
  text += " GMT\r\n";
  return text;
}

std::string_view StatusText(std::uint32_t index) {
  return index < kStatusTexts.size() ? kStatusTexts[index] : std::string_view();
}

std::string CodeText(std::uint32_t code) {
  std::string number = std::to_string(code) + ' ';
  for (const std::string_view text : kOtherStatuses) {
    if (text.starts_with(number)) {
      return std::string(text);
    }
  }
  return number;
}

std::uint32_t IndexOfCode(std::uint32_t code) {
  const std::string number = std::to_string(code) + ' ';
  for (std::uint32_t index = 0; index < kStatusTexts.size(); ++index) {
    if (kStatusTexts[index].starts_with(number)) {
      return index;
    }
  }
  return code;
}

std::string DateChallenge(std::int64_t wallSeconds) {
  return "Digest realm=\"QNV\", domain=\"0.0.0.0\", qop=\"auth\", nonce=\"" +
         Md5Hex(HttpDate(wallSeconds)) + "\", opaque=\"\", algorithm=\"MD5\", stale=\"FALSE\"";
}

// In an order that also clients read which expect the nonce behind the realm.
std::string NonceChallenge(std::string_view nonce, bool stale, bool sha256) {
  const auto by = [&](const char* algorithm) {
    return "Digest realm=\"QNV\", nonce=\"" + std::string(nonce) +
           "\", qop=\"auth\", algorithm=" + algorithm + ", stale=" + (stale ? "true" : "false");
  };
  return sha256 ? by("SHA-256") + "\r\nWWW-Authenticate: " + by("MD5") : by("MD5");
}

// RFC 9110, 5.6.2.
bool IsHeaderName(std::string_view text) {
  constexpr std::string_view kMarks = "!#$%&'*+-.^_`|~";
  return !text.empty() && std::all_of(text.begin(), text.end(), [&](char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
           kMarks.find(c) != std::string_view::npos;
  });
}

bool IsHeaderValue(std::string_view text) {
  return std::none_of(text.begin(), text.end(),
                      [](char c) { return static_cast<unsigned char>(c) < ' ' || c == '\x7f'; });
}

std::string HeaderBlock(const AnswerHead& head, std::size_t bodyLength, std::int64_t wallSeconds) {
  std::string block;
  block.reserve(512);
  block += "HTTP/1.1 ";
  block += head.status;
  block += "\r\nDate: ";
  block += HttpDate(wallSeconds);
  block += kServer;
  block += "Cache-Control: no-cache\r\n";
  if (bodyLength > 0 || !head.contentType.empty()) {
    block += "Content-type: ";
    block += head.contentType.empty() ? kHtml : head.contentType;
    block += "\r\n";
  }
  if (bodyLength > 0) {
    block += "Content-length: ";
    block += std::to_string(bodyLength);
    block += "\r\n";
  }
  if (!head.challenge.empty()) {
    block += "WWW-Authenticate: ";
    block += head.challenge;
    block += "\r\n";
  }
  block += head.others;
  block += ConnectionLine(head.keepAlive);
  return block;
}

std::string FileHeaderBlock(const AnswerHead& head, std::int64_t length,
                            std::string_view lastModified, std::int64_t wallSeconds) {
  std::string block = "HTTP/1.1 200 OK\r\nDate: ";
  block += HttpDate(wallSeconds);
  block += kServer;
  block += "Content-type: ";
  block += head.contentType.empty() ? kHtml : head.contentType;
  block += "\r\n";
  if (!lastModified.empty()) {
    block += "Last-modified: ";
    block += lastModified;
    block += "\r\n";
  }
  block += "Content-length: ";
  block += std::to_string(length);
  block += "\r\n";
  block += head.others;
  block += ConnectionLine(head.keepAlive);
  return block;
}

}  // namespace cms
