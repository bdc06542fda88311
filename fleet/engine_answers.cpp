#include "fleet/engine_answers.h"

#include <charconv>
#include <nlohmann/json.hpp>

#include "fleet/base64.h"

namespace cms::fleet {
namespace {

using nlohmann::json;

// Numbers of 64 bits come as texts; what is 0 is left out.
template <typename Number>
std::optional<Number> NumberOf(const json& object, const char* name) {
  const auto found = object.find(name);
  if (found == object.end()) {
    return Number{0};
  }
  if (const auto* text = found->get_ptr<const json::string_t*>()) {
    Number number{};
    const char* end = text->data() + text->size();
    const auto [stop, error] = std::from_chars(text->data(), end, number);
    return error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
  }
  return std::nullopt;
}

bool FlagOf(const json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_boolean() && found->get<bool>();
}

std::string TextOf(const json& object, const char* name) {
  const auto found = object.find(name);
  return found != object.end() && found->is_string() ? found->get<std::string>() : "";
}

std::optional<json> ObjectOf(std::string_view text) {
  json object = json::parse(text, nullptr, false);
  return object.is_object() ? std::optional(std::move(object)) : std::nullopt;
}

std::optional<EngineHeader> HeaderOf(const json& answer) {
  const auto found = answer.find("header");
  if (found == answer.end() || !found->is_object()) {
    return std::nullopt;
  }
  const auto cluster = NumberOf<std::uint64_t>(*found, "cluster_id");
  const auto revision = NumberOf<std::int64_t>(*found, "revision");
  return cluster && revision ? std::optional(EngineHeader{*cluster, *revision}) : std::nullopt;
}

std::optional<EngineKey> KeyOf(const json& entry) {
  if (!entry.is_object()) {
    return std::nullopt;
  }
  const auto key = FromBase64(TextOf(entry, "key"));
  const auto value = FromBase64(TextOf(entry, "value"));
  const auto created = NumberOf<std::int64_t>(entry, "create_revision");
  const auto changed = NumberOf<std::int64_t>(entry, "mod_revision");
  const auto lease = NumberOf<std::int64_t>(entry, "lease");
  if (!key || !value || !created || !changed || !lease) {
    return std::nullopt;
  }
  return EngineKey{*key, *value, *created, *changed, *lease};
}

// Each entry of a list, which is left out where it is empty; false when one is refused.
template <typename Take>
bool EachOf(const json& object, const char* name, Take take) {
  const auto found = object.find(name);
  if (found == object.end()) {
    return true;
  }
  if (!found->is_array()) {
    return false;
  }
  for (const json& entry : *found) {
    if (!take(entry)) {
      return false;
    }
  }
  return true;
}

bool TakeEvent(const json& entry, WatchAnswer& watch) {
  const auto found = entry.is_object() ? entry.find("kv") : entry.end();
  const auto key = entry.is_object() && found != entry.end() ? KeyOf(*found) : std::nullopt;
  if (!key) {
    return false;
  }
  watch.events.push_back({TextOf(entry, "type") == "DELETE", *key});
  return true;
}

std::optional<LeaseAnswer> LeaseOf(const json& answer, std::optional<EngineHeader> header) {
  const auto lease = NumberOf<std::int64_t>(answer, "ID");
  const auto ttl = NumberOf<std::int64_t>(answer, "TTL");
  if (!header || !lease || !ttl || *ttl < 0 || *ttl > 86'400) {
    return std::nullopt;
  }
  return LeaseAnswer{*header, *lease, static_cast<int>(*ttl)};
}

}  // namespace

std::optional<RangeAnswer> ReadRangeAnswer(std::string_view text) {
  const auto answer = ObjectOf(text);
  const auto header = answer ? HeaderOf(*answer) : std::nullopt;
  if (!header) {
    return std::nullopt;
  }
  RangeAnswer range{*header, {}, FlagOf(*answer, "more")};
  const bool whole = EachOf(*answer, "kvs", [&](const json& entry) {
    auto key = KeyOf(entry);
    if (!key) {
      return false;
    }
    range.keys.push_back(*std::move(key));
    return true;
  });
  return whole ? std::optional(std::move(range)) : std::nullopt;
}

std::optional<TransactionAnswer> ReadTransactionAnswer(std::string_view text) {
  const auto answer = ObjectOf(text);
  const auto header = answer ? HeaderOf(*answer) : std::nullopt;
  if (!header) {
    return std::nullopt;
  }
  TransactionAnswer transaction{*header, FlagOf(*answer, "succeeded"), {}};
  const bool whole = EachOf(*answer, "responses", [&](const json& entry) {
    if (!entry.is_object()) {
      return false;
    }
    if (const auto inner = entry.find("response_txn"); inner != entry.end()) {
      transaction.nested.push_back(inner->is_object() && FlagOf(*inner, "succeeded"));
    }
    return true;
  });
  return whole ? std::optional(std::move(transaction)) : std::nullopt;
}

std::optional<LeaseAnswer> ReadGrantAnswer(std::string_view text) {
  const auto answer = ObjectOf(text);
  const auto lease = answer ? LeaseOf(*answer, HeaderOf(*answer)) : std::nullopt;
  return lease && lease->lease != 0 && lease->ttl > 0 ? lease : std::nullopt;
}

std::optional<LeaseAnswer> ReadRenewalAnswer(std::string_view text) {
  const auto answer = ObjectOf(text);
  const auto result = answer ? answer->find("result") : json::const_iterator();
  if (!answer || result == answer->end() || !result->is_object()) {
    return std::nullopt;
  }
  return LeaseOf(*result, HeaderOf(*result));
}

std::optional<EngineHeader> ReadHeaderAnswer(std::string_view text) {
  const auto answer = ObjectOf(text);
  return answer ? HeaderOf(*answer) : std::nullopt;
}

std::optional<bool> ReadLeads(std::string_view text) {
  const auto answer = ObjectOf(text);
  const auto header = answer ? answer->find("header") : json::const_iterator();
  if (!answer || header == answer->end() || !header->is_object()) {
    return std::nullopt;
  }
  const auto self = NumberOf<std::uint64_t>(*header, "member_id");
  const auto leader = NumberOf<std::uint64_t>(*answer, "leader");
  return self && leader ? std::optional(*self != 0 && *self == *leader) : std::nullopt;
}

std::optional<std::string> ReadLoginAnswer(std::string_view text) {
  const auto answer = ObjectOf(text);
  std::string token = answer ? TextOf(*answer, "token") : "";
  return token.empty() ? std::nullopt : std::optional(std::move(token));
}

std::optional<WatchAnswer> ReadWatchLine(std::string_view line) {
  const auto answer = ObjectOf(line);
  const auto result = answer ? answer->find("result") : json::const_iterator();
  if (!answer || result == answer->end() || !result->is_object()) {
    return std::nullopt;
  }
  const auto header = HeaderOf(*result);
  const auto compacted = NumberOf<std::int64_t>(*result, "compact_revision");
  if (!header || !compacted) {
    return std::nullopt;
  }
  WatchAnswer watch{
      *header, FlagOf(*result, "created"), FlagOf(*result, "canceled"), *compacted, {}};
  const bool whole =
      EachOf(*result, "events", [&](const json& entry) { return TakeEvent(entry, watch); });
  return whole ? std::optional(std::move(watch)) : std::nullopt;
}

std::string ReadRefusal(std::string_view text) {
  const auto answer = ObjectOf(text);
  if (!answer) {
    return "";
  }
  const std::string error = TextOf(*answer, "error");
  return error.empty() ? TextOf(*answer, "message") : error;
}

}  // namespace cms::fleet
