#include "fleet/engine_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <utility>

#include "fleet/base64.h"

namespace cms::fleet {
namespace {

constexpr std::size_t kLongestAnswer = 64u << 20;
constexpr std::size_t kLongestLine = 16u << 20;
constexpr int kPage = 2'000;
constexpr std::chrono::milliseconds kLoginWait{3'000};  // the engine takes its time over passwords
constexpr long kWatchAlive = 5;                         // seconds, for TCP's own question
constexpr int kHttpUnauthorized = 401;

CURL* HandleOf(void* curl) {
  return static_cast<CURL*>(curl);
}

std::size_t AppendAnswer(char* bytes, std::size_t size, std::size_t count, void* target) {
  auto& answer = *static_cast<std::string*>(target);
  if (answer.size() + size * count > kLongestAnswer) {
    return 0;
  }
  answer.append(bytes, size * count);
  return size * count;
}

std::chrono::milliseconds WaitOf(const EngineAccess& access) {
  const auto part =
      EngineClient::kLongWait / static_cast<int>(std::max<std::size_t>(access.members.size(), 1));
  return access.waitsLong ? std::max(part, EngineClient::kMemberWait) : EngineClient::kMemberWait;
}

std::string KeyBody(std::string_view key, std::string_view rest = {}) {
  return R"({"key":")" + ToBase64(key) + "\"" + std::string(rest) + "}";
}

// Lines of a watch, as they come in pieces.
struct WatchLines {
  const std::function<bool(const WatchAnswer&)>& take;
  const std::function<bool()>& goOn;
  std::string rest;

  static std::size_t Receive(char* bytes, std::size_t size, std::size_t count, void* target) {
    auto& lines = *static_cast<WatchLines*>(target);
    lines.rest.append(bytes, size * count);
    std::size_t begin = 0;
    for (std::size_t end; (end = lines.rest.find('\n', begin)) != std::string::npos;
         begin = end + 1) {
      const auto answer = ReadWatchLine(std::string_view(lines.rest).substr(begin, end - begin));
      if (!answer || !lines.take(*answer)) {
        return 0;
      }
    }
    lines.rest.erase(0, begin);
    return lines.rest.size() > kLongestLine ? 0 : size * count;
  }

  static int GoOn(void* target, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return static_cast<WatchLines*>(target)->goOn() ? 0 : 1;
  }
};

}  // namespace

std::string EndOfPrefix(std::string prefix) {
  ++prefix.back();
  return prefix;
}

EngineClient::EngineClient(EngineAccess access)
    : access_(std::move(access)), wait_(WaitOf(access_)), curl_(curl_easy_init()) {
  if (access_.members.empty() || curl_ == nullptr) {
    curl_easy_cleanup(HandleOf(curl_));
    throw std::runtime_error("the engine cannot be asked: name a member of it with --engine");
  }
}

EngineClient::~EngineClient() {
  curl_slist_free_all(static_cast<curl_slist*>(headers_));
  curl_easy_cleanup(HandleOf(curl_));
}

void EngineClient::SetCommon(const std::string& url, const std::string& body) {
  CURL* curl = HandleOf(curl_);
  curl_easy_reset(curl);
  curl_slist_free_all(static_cast<curl_slist*>(headers_));
  headers_ = curl_slist_append(nullptr, "Content-Type: application/json");
  if (!token_.empty()) {
    headers_ =
        curl_slist_append(static_cast<curl_slist*>(headers_), ("Authorization: " + token_).c_str());
  }
  url_ = url;
  curl_easy_setopt(curl, CURLOPT_URL, url_.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers_);
  curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
  curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_TCP_NODELAY, 1L);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(kMemberWait.count()));
  curl_easy_setopt(curl, CURLOPT_NOPROXY, "*");
  if (!access_.caFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_CAINFO, access_.caFile.c_str());
  }
  if (!access_.certificateFile.empty()) {
    curl_easy_setopt(curl, CURLOPT_SSLCERT, access_.certificateFile.c_str());
    curl_easy_setopt(curl, CURLOPT_SSLKEY, access_.keyFile.c_str());
  }
}

EngineClient::Outcome EngineClient::AskMember(const char* path, const std::string& body,
                                              std::string* answer) {
  CURL* curl = HandleOf(curl_);
  const std::string& member = access_.members[member_];
  SetCommon(member + path, body);
  answer->clear();
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &AppendAnswer);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, answer);
  const bool login = std::string_view(path).ends_with("/authenticate");
  curl_easy_setopt(curl, CURLOPT_TIMEOUT_MS,
                   static_cast<long>((login ? std::max(kLoginWait, wait_) : wait_).count()));
  const CURLcode code = curl_easy_perform(curl);
  refused_ = false;
  if (access_.counts) {
    ++access_.counts->requests;
    access_.counts->failures += code != CURLE_OK ? 1 : 0;
  }
  if (code != CURLE_OK) {
    problem_ = member + ": " + curl_easy_strerror(code);
    return Outcome::kAway;
  }
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  if (status == 200) {
    return Outcome::kDone;
  }
  problem_ = member + ": status " + std::to_string(status) + " " + ReadRefusal(*answer);
  if (status == kHttpUnauthorized) {
    return Outcome::kLogin;
  }
  refused_ = status / 100 == 4;
  return refused_ ? Outcome::kRefused : Outcome::kAway;
}

// Each member is asked once, and once more where it wants another login.
std::optional<std::string> EngineClient::Ask(const char* path, const std::string& body) {
  std::string answer;
  bool hasLoggedIn = false;
  for (std::size_t tried = 0; tried < access_.members.size();) {
    if (token_.empty() && !access_.user.empty() && !hasLoggedIn) {
      hasLoggedIn = true;
      if (!LogIn()) {
        Next();
        ++tried;
        hasLoggedIn = refused_;
        if (refused_) {
          return std::nullopt;
        }
        continue;
      }
    }
    switch (AskMember(path, body, &answer)) {
      case Outcome::kDone:
        return answer;
      case Outcome::kLogin:
        if (access_.user.empty() || hasLoggedIn) {
          refused_ = true;
          return std::nullopt;
        }
        token_.clear();
        break;
      case Outcome::kRefused:
        return std::nullopt;
      case Outcome::kAway:
        Next();
        ++tried;
    }
  }
  return std::nullopt;
}

bool EngineClient::LogIn() {
  std::string answer;
  const std::string body =
      nlohmann::json{{"name", access_.user}, {"password", access_.password}}.dump(
          -1, ' ', false, nlohmann::json::error_handler_t::replace);
  if (AskMember("/v3/auth/authenticate", body, &answer) != Outcome::kDone) {
    return false;
  }
  token_ = ReadLoginAnswer(answer).value_or("");
  return !token_.empty();
}

std::optional<RangeAnswer> EngineClient::Range(std::string_view key, std::string_view end,
                                               int limit, std::int64_t revision) {
  std::string rest;
  if (!end.empty()) {
    rest += R"(,"range_end":")" + ToBase64(end) + "\"";
  }
  rest += R"(,"limit":")" + std::to_string(limit) + R"(","revision":")" + std::to_string(revision) +
          "\"";
  const auto answer = Ask("/v3/kv/range", KeyBody(key, rest));
  return answer ? ReadRangeAnswer(*answer) : std::nullopt;
}

std::optional<RangeAnswer> EngineClient::Load(const std::string& prefix) {
  const std::string end = EndOfPrefix(prefix);
  auto whole = Range(prefix, end, kPage);
  for (bool more = whole && whole->more; more;) {
    auto page = Range(whole->keys.back().key + '\0', end, kPage, whole->header.revision);
    if (!page || page->keys.empty()) {
      return std::nullopt;
    }
    more = page->more;
    std::move(page->keys.begin(), page->keys.end(), std::back_inserter(whole->keys));
  }
  return whole;
}

std::optional<EngineHeader> EngineClient::Put(std::string_view key, std::string_view value,
                                              std::int64_t lease) {
  const auto answer =
      Ask("/v3/kv/put", KeyBody(key, R"(,"value":")" + ToBase64(value) + R"(","lease":")" +
                                         std::to_string(lease) + "\""));
  return answer ? ReadHeaderAnswer(*answer) : std::nullopt;
}

std::optional<EngineHeader> EngineClient::Delete(std::string_view key) {
  const auto answer = Ask("/v3/kv/deleterange", KeyBody(key));
  return answer ? ReadHeaderAnswer(*answer) : std::nullopt;
}

std::optional<TransactionAnswer> EngineClient::Transact(const EngineTransaction& transaction) {
  const auto answer = Ask("/v3/kv/txn", transaction.Json());
  return answer ? ReadTransactionAnswer(*answer) : std::nullopt;
}

std::optional<LeaseAnswer> EngineClient::Grant(int seconds) {
  const auto answer =
      Ask("/v3/lease/grant", R"({"TTL":")" + std::to_string(seconds) + R"(","ID":"0"})");
  return answer ? ReadGrantAnswer(*answer) : std::nullopt;
}

std::optional<LeaseAnswer> EngineClient::Renew(std::int64_t lease) {
  Next();
  std::string answer;
  const std::string body = R"({"ID":")" + std::to_string(lease) + "\"}";
  if (AskMember("/v3/lease/keepalive", body, &answer) != Outcome::kDone) {
    return std::nullopt;
  }
  auto renewal = ReadRenewalAnswer(answer);
  if (!renewal) {
    problem_ = access_.members[member_] + ": an answer that is none: " + answer.substr(0, 200);
  }
  return renewal;
}

std::optional<EngineHeader> EngineClient::Revoke(std::int64_t lease) {
  const auto answer = Ask("/v3/lease/revoke", R"({"ID":")" + std::to_string(lease) + "\"}");
  return answer ? ReadHeaderAnswer(*answer) : std::nullopt;
}

std::optional<bool> EngineClient::Leads() {
  const auto answer = Ask("/v3/maintenance/status", "{}");
  return answer ? ReadLeads(*answer) : std::nullopt;
}

void EngineClient::Watch(const std::string& prefix, std::int64_t fromRevision,
                         const std::function<bool(const WatchAnswer&)>& take,
                         const std::function<bool()>& goOn) {
  Next();
  if (token_.empty() && !access_.user.empty() && !LogIn()) {
    return;
  }
  CURL* curl = HandleOf(curl_);
  const std::string body = R"({"create_request":{"key":")" + ToBase64(prefix) +
                           R"(","range_end":")" + ToBase64(EndOfPrefix(prefix)) +
                           R"(","start_revision":")" + std::to_string(fromRevision) + "\"}}";
  SetCommon(access_.members[member_] + "/v3/watch", body);
  WatchLines lines{take, goOn, {}};
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &WatchLines::Receive);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &lines);
  curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &WatchLines::GoOn);
  curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &lines);
  curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPALIVE, 1L);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPIDLE, kWatchAlive);
  curl_easy_setopt(curl, CURLOPT_TCP_KEEPINTVL, kWatchAlive);
  const CURLcode code = curl_easy_perform(curl);
  long status = 0;
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
  problem_ = access_.members[member_] + ": " +
             (code == CURLE_OK ? "the watch ended, status " + std::to_string(status)
                               : std::string(curl_easy_strerror(code)));
  if (status == kHttpUnauthorized) {
    token_.clear();
  }
}

}  // namespace cms::fleet
