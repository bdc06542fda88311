// What the handlers of `orvanta serve` share: reading a query, answering with JSON.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "cms/exports/http_server_exports.h"
#include "tools/serve/picture_record.h"

namespace tools {

// A request that cannot be answered; its text is told to the client.
class BadRequest : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// One request while its handler runs.
class WebRequest {
 public:
  explicit WebRequest(HttpRequest* request);

  // The value of "name=" in the query, as it stands there; nothing when it is not in it.
  std::optional<std::string_view> Value(std::string_view name) const;
  // A whole number in the query; throws BadRequest when it is missing, none, or outside.
  std::int64_t Number(std::string_view name, std::int64_t lowest, std::int64_t highest) const;

  std::string_view Query() const { return query_; }
  std::string Method() const;
  std::string Header(const char* name) const;  // empty when it is not there
  std::string User() const;                    // as GetUsername
  std::uint32_t Address() const;               // the client's, host byte order
  std::string From() const;                    // the same as text
  int Port() const { return GetBindPort(request_); }
  // At most so many bytes; throws BadRequest.
  std::string Body(std::uint32_t mostBytes);

  // Throws BadRequest for what a page of another origin has a browser send: browsers tell in
  // headers where a request comes from, programs do not.
  void RequireOwnPage() const;

  // What changes something is asked for with the method PUT: a page of another origin cannot have a
  // browser send that. Throws BadRequest.
  void RequirePut() const;
  bool IsGet() const;

  // Throws BadRequest where a page was led here by a name that is none of this machine's: any name
  // of anybody's can be made to mean this machine's address, and the page would read the answer.
  void RequireHost(const std::vector<std::string>& names) const;

  void SetStatus(std::uint32_t status) { SetStatusCode(request_, status); }
  void AddHeader(const char* name, const std::string& value) {
    RequestAddHeader(request_, name, value.c_str());
  }
  void Redirect(const char* where);  // the browser asks for that page, with GET

  void Answer(const nlohmann::ordered_json& value);
  void AnswerText(const char* type, const std::string& text);
  void AnswerBytes(const char* type, std::span<const std::uint8_t> bytes);
  void Refuse(std::uint32_t status, const std::string& why);
  const std::string& Problem() const { return problem_; }  // why it was refused; else empty

  // Asked once a second while something is streamed: false ends it.
  void StreamWhile(std::function<bool()> may) { mayStream_ = std::move(may); }
  // Streaming; false when the client is gone or the server is closing.
  bool Send(std::span<const std::uint8_t> bytes);
  bool Send(const std::string& bytes) { return Send(BytesOf(bytes)); }
  bool SendLine(const nlohmann::ordered_json& value) { return Send(HarmlessJson(value) + "\n"); }
  // A whole file, which browsers keep under that name. Throws std::runtime_error when it cannot be
  // opened.
  void SendFile(const std::string& path, const std::string& name, const char* type);
  void EndStream() { ForceDissconnect(request_); }

 private:
  static std::span<const std::uint8_t> BytesOf(const std::string& text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
  }

  HttpRequest* request_;
  std::string query_;
  std::string problem_;
  std::function<bool()> mayStream_;
  std::chrono::steady_clock::time_point nextAsked_;
};

// The latest that a record can tell, in seconds since 1970-01-01 UTC.
inline constexpr std::int64_t kLatestTime = 4'294'967'294;

}  // namespace tools
