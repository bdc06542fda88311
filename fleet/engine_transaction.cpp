#include "fleet/engine_transaction.h"

#include "fleet/base64.h"

namespace cms::fleet {
namespace {

std::string Joined(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) {
    text += (text.empty() ? "" : ",") + part;
  }
  return text;
}

}  // namespace

EngineTransaction& EngineTransaction::If(std::string_view key, std::string_view rest) {
  conditions_.push_back(R"({"key":")" + ToBase64(key) + "\"," + std::string(rest) + "}");
  return *this;
}

EngineTransaction& EngineTransaction::IfCreated(std::string_view key, std::int64_t revision) {
  return If(key, R"("target":"CREATE","result":"EQUAL","create_revision":")" +
                     std::to_string(revision) + "\"");
}

EngineTransaction& EngineTransaction::IfChanged(std::string_view key, std::int64_t revision) {
  return If(
      key, R"("target":"MOD","result":"EQUAL","mod_revision":")" + std::to_string(revision) + "\"");
}

EngineTransaction& EngineTransaction::IfPresent(std::string_view key) {
  return If(key, R"("target":"CREATE","result":"GREATER","create_revision":"0")");
}

EngineTransaction& EngineTransaction::Put(std::string_view key, std::string_view value,
                                          std::int64_t lease) {
  operations_.push_back(R"({"request_put":{"key":")" + ToBase64(key) + R"(","value":")" +
                        ToBase64(value) + R"(","lease":")" + std::to_string(lease) + "\"}}");
  return *this;
}

EngineTransaction& EngineTransaction::Delete(std::string_view key) {
  operations_.push_back(R"({"request_delete_range":{"key":")" + ToBase64(key) + "\"}}");
  return *this;
}

EngineTransaction& EngineTransaction::Nested(const EngineTransaction& inner) {
  operations_.push_back(R"({"request_txn":)" + inner.Json() + "}");
  return *this;
}

std::string EngineTransaction::Json() const {
  return R"({"compare":[)" + Joined(conditions_) + R"(],"success":[)" + Joined(operations_) + "]}";
}

}  // namespace cms::fleet
