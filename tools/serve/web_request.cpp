#include "tools/serve/web_request.h"

#include <arpa/inet.h>
#include <strings.h>

#include <algorithm>
#include <charconv>

namespace tools {
namespace {

// Enough for a fast picture, little enough for slow clients to be shown what is new.
constexpr int kSendBuffer = 256 * 1024;

}  // namespace

WebRequest::WebRequest(HttpRequest* request) : request_(request) {
  GetQueryData(request, &query_);
}

std::optional<std::string_view> WebRequest::Value(std::string_view name) const {
  for (std::string_view left = query_; !left.empty();) {
    const std::string_view item = left.substr(0, left.find('&'));
    left.remove_prefix(std::min(item.size() + 1, left.size()));
    if (item.starts_with(name) && item.substr(name.size()).starts_with('=')) {
      return item.substr(name.size() + 1);
    }
  }
  return std::nullopt;
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

void WebRequest::RequirePut() const {
  std::string method;
  GetMethod(request_, method);
  if (method != "PUT") {
    throw BadRequest("this changes something: ask with the method PUT");
  }
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

void WebRequest::Answer(const nlohmann::ordered_json& value) {
  RequestSetContentType(request_, "application/json");
  RequestWrite(request_, (HarmlessJson(value) + "\n").c_str());
}

void WebRequest::Refuse(std::uint32_t status, const std::string& why) {
  SetStatusCode(request_, status);
  Answer({{"error", why}});
}

bool WebRequest::Send(const std::string& bytes) {
  SetSendSocketBuufer(request_, kSendBuffer);
  RequestSetContentType(request_, "application/octet-stream");
  return RequestFlushWrite(request_, bytes.data(), static_cast<int>(bytes.size())) == 1;
}

}  // namespace tools
