// What a search has to find, the slow way: every file read anew, every rule a plain loop.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace test {

struct OracleRecord {
  std::string file;  // native path
  std::int64_t start = 0;
  std::int64_t end = 0;
  bool operator==(const OracleRecord&) const = default;
};

struct OracleSpan {
  std::uint32_t site = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
  std::vector<OracleRecord> records;
  bool operator==(const OracleSpan&) const = default;
};

struct OracleEvent {
  std::uint32_t site = 0;
  int kind = 0;
  unsigned channel = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;
  bool operator==(const OracleEvent&) const = default;
};

struct OracleAnswer {
  std::vector<int> days;  // that are marked
  std::vector<OracleSpan> spans;
  std::vector<OracleEvent> events;
  std::string keptEvents;  // the event list afterwards
};

struct OracleQuestion {
  unsigned cms = 0;
  std::int64_t from = 0;
  std::int64_t to = 0;
  bool month = false;
};

// Asks the databases beside the working folder; nothing is changed.
OracleAnswer AskOracle(const OracleQuestion& question);

}  // namespace test
