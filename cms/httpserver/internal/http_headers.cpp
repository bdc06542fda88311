#include "cms/httpserver/internal/http_headers.h"

#include <array>
#include <chrono>

#include "cms/httpserver/http_server_types.h"
#include "cms/runtime/digest.h"

namespace cms {
namespace {

constexpr std::string_view kServer = "Server: CMS-HTTPServer\r\n";

std::string_view StatusText(std::uint32_t status) {
  // 901 and 902 are this server's own.
  static constexpr std::array<std::string_view, 9> kTexts = {
      "200 OK",           "400 Bad Request", "401 Unauthorized",        "401 Unauthorized",
      "403 Forbidden",    "404 Not Found",   "503 Service Unavailable", "901 Not in white list",
      "902 In black list"};
  return status < kTexts.size() ? kTexts[status] : std::string_view();
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

std::string HeaderBlock(std::uint32_t status, std::size_t bodyLength, bool keepAlive,
                        std::int64_t wallSeconds) {
  const std::string date = HttpDate(wallSeconds);
  std::string block;
  block.reserve(512);
  block += "HTTP/1.1 ";
  block += StatusText(status);
  block += "\r\nDate: ";
  block += date;
  block += kServer;
  block += "Cache-Control: no-cache\r\n";
  if (bodyLength > 0) {
    block += "Content-type: text/html\r\nContent-length: ";
    block += std::to_string(bodyLength);
    block += "\r\n";
  }
  if (status == kHttpAuthorizationRequired || status == kHttpAuthenticationError) {
    block += "WWW-Authenticate: Digest realm=\"QNV\", domain=\"0.0.0.0\", qop=\"auth\", nonce=\"";
    block += Md5Hex(date);
    block += "\", opaque=\"\", algorithm=\"MD5\", stale=\"FALSE\"\r\n";
  }
  block += keepAlive ? "Connection: keep-alive\r\n\r\n" : "Connection: close\r\n\r\n";
  return block;
}

std::string FileHeaderBlock(std::int64_t length, std::string_view lastModified,
                            std::int64_t wallSeconds) {
  std::string block = "HTTP/1.1 200 OK\r\nDate: ";
  block += HttpDate(wallSeconds);
  block += kServer;
  block += "Content-type: text/html\r\n";
  if (!lastModified.empty()) {
    block += "Last-modified: ";
    block += lastModified;
    block += "\r\n";
  }
  block += "Content-length: ";
  block += std::to_string(length);
  block += "\r\nConnection: keep-alive\r\n\r\n";
  return block;
}

}  // namespace cms
