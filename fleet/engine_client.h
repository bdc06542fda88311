// Asks the engine, etcd, through its HTTP interface.
#pragma once

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "fleet/engine_access.h"
#include "fleet/engine_answers.h"
#include "fleet/engine_transaction.h"

namespace cms::fleet {

// For one thread, which waits for the answers: at most kMemberWait at each member, or its part of
// kLongWait with an access that waits long, and the next one is asked when one hangs, refuses the
// connection or has no leader. A request may have been done although no answer came, so each is one
// that can be done twice. std::nullopt: nobody answered, or the engine refused; Problem() says
// which.
class EngineClient {
 public:
  static constexpr std::chrono::milliseconds kMemberWait{700};
  static constexpr std::chrono::milliseconds kLongWait{10'000};  // at all members together

  explicit EngineClient(EngineAccess access);
  ~EngineClient();
  EngineClient(const EngineClient&) = delete;
  EngineClient& operator=(const EngineClient&) = delete;

  // Of the keys from `key` to `end`, which is not included; empty: that key alone. At the revision
  // where it is not 0.
  std::optional<RangeAnswer> Range(std::string_view key, std::string_view end = {}, int limit = 0,
                                   std::int64_t revision = 0);
  // All keys that begin with the prefix, page by page, as of one revision.
  std::optional<RangeAnswer> Load(const std::string& prefix);
  std::optional<EngineHeader> Put(std::string_view key, std::string_view value,
                                  std::int64_t lease = 0);
  std::optional<EngineHeader> Delete(std::string_view key);
  std::optional<TransactionAnswer> Transact(const EngineTransaction& transaction);

  std::optional<LeaseAnswer> Grant(int seconds);
  // At the next member each time, and at that one alone: one that hangs costs one renewal.
  std::optional<LeaseAnswer> Renew(std::int64_t lease);
  std::optional<EngineHeader> Revoke(std::int64_t lease);

  // Whether the member that answers leads the others: ask with an access of that one alone.
  std::optional<bool> Leads();

  // Calls back for every line that the watch tells, until `goOn`, which is asked several times a
  // second, says false, `take` says false, or the connection ends. Begins at the next member each
  // time.
  void Watch(const std::string& prefix, std::int64_t fromRevision,
             const std::function<bool(const WatchAnswer&)>& take,
             const std::function<bool()>& goOn);

  const std::string& Problem() const { return problem_; }
  bool WasRefused() const { return refused_; }  // by the engine: asking another member is no use

 private:
  enum class Outcome { kDone, kAway, kLogin, kRefused };

  std::optional<std::string> Ask(const char* path, const std::string& body);
  Outcome AskMember(const char* path, const std::string& body, std::string* answer);
  bool LogIn();
  void SetCommon(const std::string& url, const std::string& body);
  void Next() { member_ = (member_ + 1) % access_.members.size(); }

  const EngineAccess access_;
  const std::chrono::milliseconds wait_;  // for an answer of one member
  void* const curl_;
  void* headers_ = nullptr;
  std::string url_;
  std::string token_;
  std::string problem_;
  bool refused_ = false;
  std::size_t member_ = 0;
};

// Behind all keys with the prefix, as the end of a range.
std::string EndOfPrefix(std::string prefix);

}  // namespace cms::fleet
