// What the handlers of `orvanta serve` share: reading a query, answering with JSON.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
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

  // What changes something is asked for with the method PUT: a page of another origin cannot have a
  // browser send that. Throws BadRequest.
  void RequirePut() const;

  // Throws BadRequest where a page was led here by a name that is none of this machine's: any name
  // of anybody's can be made to mean this machine's address, and the page would read the answer.
  void RequireHost(const std::vector<std::string>& names) const;

  void Answer(const nlohmann::ordered_json& value);
  void Refuse(std::uint32_t status, const std::string& why);

  // Streaming; false when the client is gone or the server is closing.
  bool Send(const std::string& bytes);
  void EndStream() { ForceDissconnect(request_); }

 private:
  HttpRequest* request_;
  std::string query_;
};

// The latest that a record can tell, in seconds since 1970-01-01 UTC.
inline constexpr std::int64_t kLatestTime = 4'294'967'294;

}  // namespace tools
