// Requests: whatever arrives, nothing is read that is not there, every part is a piece of the
// text, and what stands between a method and the next blank is found again.
#include <string>

#include "cms/httpserver/internal/http_headers.h"
#include "cms/httpserver/internal/request_parser.h"
#include "cms/httpserver/internal/whole_request.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  cms::ParsedRequest parsed;
  if (cms::ParseRequest(text, parsed)) {
    for (const std::string& part :
         {parsed.method, parsed.command, parsed.query, parsed.userName, parsed.authorization}) {
      CHECK(text.find(part) != text.npos);
    }
    CHECK(text.starts_with(parsed.method));
    CHECK(parsed.method.find_first_of(" /") == parsed.method.npos);
    CHECK(parsed.query.find(' ') == parsed.query.npos);
    CHECK(parsed.userName.find('"') == parsed.userName.npos);
    CHECK(parsed.authorization.find('\r') == parsed.authorization.npos);
    CHECK(parsed.command.find('?') == parsed.command.npos);
  }

  // With the first line alone that counts, the others change nothing but the verdict.
  cms::ParsedRequest first;
  const std::string line = text.substr(0, text.find_first_of("\r\n"));
  if (line.find("MSIE") == line.npos && line.find("Trident") == line.npos &&
      cms::ParseRequest(line + "\r\n" + "HTTP/1.1", first, true)) {
    CHECK(cms::ParseRequest(line + "\r\nSec-Fetch-User: ?1\r\nHTTP/1.1", parsed, true));
    CHECK(parsed.command == first.command && parsed.query == first.query);
  }

  // A head is the same however it arrived, its parts are pieces of it, and only a whole one is
  // read.
  const std::size_t head = cms::HeadLength(text);
  for (const std::size_t seen : {std::size_t{1}, size / 2, size}) {
    if (seen < head || head == 0) CHECK(cms::HeadLength(text, seen) == head);
  }
  if (cms::ParseWholeRequest(std::string_view(text).substr(0, head), parsed)) {
    CHECK(head > 0 && text.starts_with(parsed.method + ' '));
    CHECK(parsed.command.find_first_of(" ?\r\n") == parsed.command.npos);
    CHECK(text.find(parsed.target) != text.npos && text.find(parsed.authorization) != text.npos);
  }
  const auto host = cms::FindHeader(text, "host");
  CHECK(!host || (text.find(*host) != text.npos && host->find("\r\n") == host->npos));

  // A target is found whatever the other headers say, as long as no "?" is among them.
  std::string rest = text;
  for (char& c : rest) {
    if (c == '?') c = '!';
  }
  const std::string plain = "GET /some/command?and=query HTTP/1.1\r\n" + rest;
  CHECK(cms::ParseRequest(plain, parsed));
  CHECK(parsed.method == "GET" && parsed.command == "/some/command" && parsed.query == "and=query");
  return 0;
}
