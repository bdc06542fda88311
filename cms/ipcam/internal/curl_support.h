// Ownership of libcurl's handles, and the addresses that it is given.
#pragma once

#include <curl/curl.h>

#include <memory>
#include <string>
#include <string_view>

namespace cms {

struct FreeEasy {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct FreeMulti {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
struct FreeUrl {
  void operator()(CURLU* url) const { curl_url_cleanup(url); }
};
struct FreeList {
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using CurlEasy = std::unique_ptr<CURL, FreeEasy>;
using CurlMulti = std::unique_ptr<CURLM, FreeMulti>;
using CurlUrl = std::unique_ptr<CURLU, FreeUrl>;
using CurlList = std::unique_ptr<curl_slist, FreeList>;

// False when libcurl cannot be used. Whoever makes a handle asks before.
bool InitializeCurl();

void AppendHeader(CurlList& list, const std::string& line);

// "http://host:port", empty for a host or a port that is none. IPv6 addresses may lack brackets.
std::string HttpOrigin(const char* scheme, std::string host, int port);

// Whether the header line asks for a login of that scheme, alone or as one of several: "Basic
// realm=x, Digest realm=y" (RFC 9110, section 11.6.1).
bool IsChallenge(std::string_view line, std::string_view scheme);

}  // namespace cms
