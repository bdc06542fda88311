#include "tools/serve/web_request.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <charconv>
#include <fstream>

#include "tools/serve/form_text.h"

namespace tools {
namespace {

// Enough for a fast picture, little enough for slow clients to be shown what is new.
constexpr int kSendBuffer = 256 * 1024;
constexpr std::chrono::seconds kAskAgain{1};

}  // namespace

WebRequest::WebRequest(HttpRequest* request) : request_(request) {
  GetQueryData(request, &query_);
}

std::optional<std::string_view> WebRequest::Value(std::string_view name) const {
  return ItemOf(query_, '&', name);
}

std::int64_t WebRequest::Number(std::string_view name, std::int64_t lowest,
                                std::int64_t highest) const {
  const std::string_view text = Value(name).value_or("");
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size() || number < lowest ||
      number > highest) {
    throw BadRequest(std::string(name) + " is a whole number from " + std::to_string(lowest) +
                     " to " + std::to_string(highest));
  }
  return number;
}

std::string WebRequest::Method() const {
  std::string method;
  GetMethod(request_, method);
  return method;
}

std::string WebRequest::Header(const char* name) const {
  std::string value;
  RequestGetHeader(request_, name, value);
  return value;
}

std::string WebRequest::User() const {
  std::string user;
  GetUsername(request_, user);
  return user;
}

std::uint32_t WebRequest::Address() const {
  return ntohl(GetClientAddress(request_));
}

std::string WebRequest::From() const {
  std::string address;
  GetClientAddressString(request_, address);
  return address;
}

std::string WebRequest::Body(std::uint32_t mostBytes) {
  std::string body;
  if (RequestReadBody(request_, mostBytes, body) == 0) {
    throw BadRequest("expected a body of at most " + std::to_string(mostBytes) + " bytes");
  }
  return body;
}

void WebRequest::RequireOwnPage() const {
  const std::string site = Header("Sec-Fetch-Site");
  const std::string origin = Header("Origin");
  const bool own =
      !site.empty() ? site == "same-origin" || site == "none"
      : !origin.empty()
          ? strcasecmp(origin.substr(std::min(origin.find("://") + 3, origin.size())).c_str(),
                       Header("Host").c_str()) == 0
          : true;
  if (!own) {
    throw BadRequest("another page asked for this: use this server's own");
  }
}

void WebRequest::RequirePut() const {
  if (Method() != "PUT") {
    throw BadRequest("this changes something: ask with the method PUT");
  }
}

bool WebRequest::IsGet() const {
  return Method() == "GET";
}

void WebRequest::RequireHost(const std::vector<std::string>& names) const {
  std::string host;
  if (RequestGetHeader(request_, "Host", host) == 0) {
    return;  // no browser
  }
  const std::string name = host.substr(0, host.find(':'));
  in_addr address{};
  if (inet_pton(AF_INET, name.c_str(), &address) != 1 &&
      std::none_of(names.begin(), names.end(), [&](const std::string& known) {
        return strcasecmp(known.c_str(), name.c_str()) == 0;
      })) {
    throw BadRequest("this machine is not known as " + name + ": see --name");
  }
}

void WebRequest::Redirect(const char* where) {
  constexpr std::uint32_t kSeeOther = 303;
  SetStatus(kSeeOther);
  RequestAddHeader(request_, "Location", where);
}

void WebRequest::Answer(const nlohmann::ordered_json& value) {
  RequestSetContentType(request_, "application/json");
  RequestWrite(request_, (HarmlessJson(value) + "\n").c_str());
}

void WebRequest::AnswerText(const char* type, const std::string& text) {
  RequestSetContentType(request_, type);
  RequestWrite(request_, text.c_str());
}

void WebRequest::AnswerBytes(const char* type, std::span<const std::uint8_t> bytes) {
  RequestSetContentType(request_, type);
  if (SendHeaderForFile(request_, static_cast<long long>(bytes.size()), "") == 1) {
    RequestFlushWrite(request_, reinterpret_cast<const char*>(bytes.data()),
                      static_cast<int>(bytes.size()));
  }
  EndStream();
}

void WebRequest::Refuse(std::uint32_t status, const std::string& why) {
  problem_ = why;
  SetStatusCode(request_, status);
  Answer({{"error", why}});
}

bool WebRequest::Send(std::span<const std::uint8_t> bytes) {
  if (const auto now = std::chrono::steady_clock::now(); mayStream_ && now >= nextAsked_) {
    nextAsked_ = now + kAskAgain;
    if (!mayStream_()) {
      return false;
    }
  }
  SetSendSocketBuufer(request_, kSendBuffer);
  RequestSetContentType(request_, "application/octet-stream");
  return RequestFlushWrite(request_, reinterpret_cast<const char*>(bytes.data()),
                           static_cast<int>(bytes.size())) == 1;
}

void WebRequest::SendFile(const std::string& path, const std::string& name, const char* type) {
  constexpr std::size_t kPart = 256 * 1024;
  std::ifstream file(path, std::ios::binary | std::ios::ate);
  if (!file) {
    throw std::runtime_error("cannot open " + path);
  }
  const auto length = static_cast<long long>(file.tellg());
  file.seekg(0);
  RequestSetContentType(request_, type);
  RequestAddHeader(request_, "Content-Disposition",
                   ("attachment; filename=\"" + name + "\"").c_str());
  std::vector<char> part(kPart);
  bool more = SendHeaderForFile(request_, length, "") == 1;
  while (more && file) {
    file.read(part.data(), static_cast<std::streamsize>(part.size()));
    const auto got = static_cast<int>(file.gcount());
    more = got > 0 && RequestFlushWrite(request_, part.data(), got) == 1;
  }
  EndStream();
}

}  // namespace tools
