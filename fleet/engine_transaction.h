// One step of the engine: conditions, and what is done when all of them hold. As JSON text, as its
// HTTP interface takes it.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace cms::fleet {

// Members return the transaction, so that calls can be chained.
class EngineTransaction {
 public:
  EngineTransaction& IfCreated(std::string_view key, std::int64_t revision);  // 0: absent
  EngineTransaction& IfChanged(std::string_view key, std::int64_t revision);  // 0: absent
  EngineTransaction& IfPresent(std::string_view key);

  EngineTransaction& Put(std::string_view key, std::string_view value, std::int64_t lease = 0);
  EngineTransaction& Delete(std::string_view key);
  EngineTransaction& Nested(const EngineTransaction& inner);  // with conditions of its own

  bool IsEmpty() const { return operations_.empty(); }
  std::string Json() const;

 private:
  EngineTransaction& If(std::string_view key, std::string_view rest);

  std::vector<std::string> conditions_;
  std::vector<std::string> operations_;
};

}  // namespace cms::fleet
