#include "tests/support/search_oracle.h"

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <map>
#include <set>

#include "tests/recording/database_bytes.h"

namespace test {
namespace {

namespace fs = std::filesystem;

std::string NativeText(const std::string& bytes, std::size_t offset, std::size_t width) {
  std::string text = fs::path(TextAt(bytes, offset, width)).string();
  std::replace(text.begin(), text.end(), '\\', '/');
  return text;
}

std::vector<std::string> RecordsOf(const std::string& path, std::size_t size) {
  const std::string bytes = ReadWholeFile(path);
  std::vector<std::string> records;
  for (std::size_t at = 0; at + size <= bytes.size(); at += size) {
    records.push_back(bytes.substr(at, size));
  }
  return records;
}

// Site -> its records, and the sites in the order of their first records.
struct Groups {
  std::map<std::uint32_t, std::vector<OracleRecord>> records;
  std::vector<std::uint32_t> order;
};

void ReadList(const std::string& path, const OracleQuestion& question, OracleAnswer& answer,
              Groups& groups) {
  for (const std::string& bytes : RecordsOf(path, kRecordBytes)) {
    const OracleRecord record{NativeText(bytes, 0, 260), TimeAt(bytes, 720), TimeAt(bytes, 728)};
    std::error_code noName;
    if (record.start == 0 || record.end == 0 || record.start >= record.end ||
        !fs::exists(record.file, noName) || record.start > question.to ||
        record.end < question.from) {
      continue;
    }
    if (question.month && record.start >= question.from) {
      const std::time_t start = record.start;
      answer.days.push_back(std::gmtime(&start)->tm_mday);
    }
    const auto site = static_cast<std::uint32_t>(NumberAt(bytes, 716, 4));
    if (!groups.records.contains(site)) {
      groups.order.push_back(site);
    }
    groups.records[site].push_back(record);
  }
}

void JoinSite(std::uint32_t site, std::vector<OracleRecord> records, OracleAnswer& answer) {
  std::stable_sort(records.begin(), records.end(),
                   [](const auto& a, const auto& b) { return a.start < b.start; });
  bool open = false;
  for (const OracleRecord& record : records) {
    if (!open || record.start > answer.spans.back().end + 1) {
      answer.spans.push_back({site, record.start, record.end, {record}});
      open = true;
      continue;
    }
    OracleSpan& span = answer.spans.back();
    if (record.start <= span.end) {
      span.records.back().end = record.start - 1;
      if (span.records.back().end < span.records.back().start) {
        span.records.pop_back();
      }
    }
    span.end = record.end;
    span.records.push_back(record);
  }
}

// As the rules number them: 1 shown, 2 kept, 0 removed.
int Validate(OracleEvent& event, std::int64_t preAlarm, const OracleQuestion& question,
             const OracleAnswer& answer) {
  for (const OracleSpan& span : answer.spans) {
    if (span.site == event.site &&
        std::max(span.start, event.start) < std::min(span.end, event.end)) {
      event.start = std::max(event.start - preAlarm, span.start);
      event.end = std::min(event.end, span.end);
      return 1;
    }
  }
  return question.from == 0 && question.to == 4294967295 ? 0 : 2;
}

}  // namespace

OracleAnswer AskOracle(const OracleQuestion& question) {
  OracleAnswer answer;
  Groups groups;
  for (const std::string& entry : RecordsOf("../RecFolderDB" + std::to_string(question.cms), 520)) {
    std::set<std::string> folders;
    std::error_code missing;
    for (const auto& inside : fs::directory_iterator(NativeText(entry, 0, 260), missing)) {
      if (inside.is_directory(missing)) {
        folders.insert(inside.path().string());
      }
    }
    for (const std::string& folder : folders) {
      ReadList(folder + "/RecordDB", question, answer, groups);
    }
  }
  std::sort(answer.days.begin(), answer.days.end());
  answer.days.erase(std::unique(answer.days.begin(), answer.days.end()), answer.days.end());
  for (const std::uint32_t site : groups.order) {
    JoinSite(site, groups.records[site], answer);
  }
  for (const std::string& bytes :
       RecordsOf("../EventList" + std::to_string(question.cms), kEventBytes)) {
    bool keep = true;
    if ((NumberAt(bytes, 194, 1) & 0xF) == question.cms) {
      const std::uint64_t type = NumberAt(bytes, 198, 1) & 0xF;
      OracleEvent event{static_cast<std::uint32_t>(NumberAt(bytes, 208, 4)),
                        type == 3   ? 0
                        : type == 4 ? 2
                                    : 1,
                        static_cast<unsigned>(NumberAt(bytes, 196, 2)) + 1, TimeAt(bytes, 216),
                        TimeAt(bytes, 224)};
      const int verdict =
          Validate(event, static_cast<std::int64_t>(NumberAt(bytes, 202, 1)), question, answer);
      keep = verdict != 0;
      if (verdict == 1) {
        answer.events.push_back(event);
      }
    }
    if (keep) {
      answer.keptEvents += bytes;
    }
  }
  std::stable_sort(answer.events.begin(), answer.events.end(),
                   [](const auto& a, const auto& b) { return a.start < b.start; });
  return answer;
}

}  // namespace test
