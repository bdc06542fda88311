// What etcd's HTTP interface answers, read from its JSON. Foreign bytes: whatever does not have the
// expected shape is no answer at all (std::nullopt).
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace cms::fleet {

// Where the engine stood when it answered. A cluster that was made anew may have the same id and a
// lower revision.
struct EngineHeader {
  std::uint64_t cluster = 0;
  std::int64_t revision = 0;
};

struct EngineKey {
  std::string key;
  std::string value;
  std::int64_t createRevision = 0;
  std::int64_t modRevision = 0;
  std::int64_t lease = 0;
};

struct RangeAnswer {
  EngineHeader header;
  std::vector<EngineKey> keys;
  bool more = false;  // than asked for in one answer
};

struct TransactionAnswer {
  EngineHeader header;
  bool succeeded = false;
  std::vector<bool> nested;  // whether each transaction within it did, in their order
};

struct LeaseAnswer {
  EngineHeader header;
  std::int64_t lease = 0;
  int ttl = 0;  // seconds granted; 0: there is no such lease any more
};

struct EngineEvent {
  bool deleted = false;
  EngineKey key;
};

struct WatchAnswer {
  EngineHeader header;
  bool created = false;
  bool canceled = false;
  std::int64_t compactRevision = 0;  // where not 0, revisions below it cannot be told any more
  std::vector<EngineEvent> events;
};

std::optional<RangeAnswer> ReadRangeAnswer(std::string_view json);
std::optional<TransactionAnswer> ReadTransactionAnswer(std::string_view json);
std::optional<LeaseAnswer> ReadGrantAnswer(std::string_view json);
// The engine answers a renewal of a lease that is gone like any other, but without a "TTL".
std::optional<LeaseAnswer> ReadRenewalAnswer(std::string_view json);
std::optional<EngineHeader> ReadHeaderAnswer(std::string_view json);  // of put, delete and revoke
std::optional<bool> ReadLeads(std::string_view json);  // of a status: the member that answers leads
std::optional<std::string> ReadLoginAnswer(std::string_view json);  // the token
std::optional<WatchAnswer> ReadWatchLine(std::string_view line);
std::string ReadRefusal(std::string_view json);  // why; empty where it does not say

}  // namespace cms::fleet
