#include "cms/recording/keep/protect_recordings.h"

#include <algorithm>
#include <map>
#include <span>

#include "cms/recording/internal/database_content.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/keep/internal/protection_list.h"
#include "cms/recording/keep/internal/recording_inventory.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/file_io.h"

namespace cms {
namespace {

std::wstring ListOf(const std::string& root) {
  return RootDatabase(root, "KeepList0");
}

std::string NotWritten(const std::string& root) {
  return root + "/KeepList0 cannot be written; see to its rights and to the space of its disk";
}

ProtectedSpan SpanOf(const ProtectionRecord& record) {
  return {{record.site, record.from, record.to}, record.since};
}

ProtectionRecord RecordOf(const SiteSpan& span, std::int64_t since) {
  return {span.from, span.to, since, span.site, 0};
}

std::string WhyNot(const std::string& root, const SiteSpan& span) {
  const std::string error = CheckDataRoot(CurrentFileIo(), root);
  return !error.empty() || span.from <= span.to ? error : "the span ends before it begins";
}

}  // namespace

std::string ProtectRecordings(const std::string& root, const SiteSpan& span) {
  if (std::string error = WhyNot(root, span); !error.empty()) {
    return error;
  }
  ScopeLock hold(ProtectionLock());
  DatabaseFile list(ListOf(root), sizeof(ProtectionRecord), DatabaseAccess::kCreate);
  bool known = false;
  const bool read = list && list.ForEach([&](auto bytes) {
    const SiteSpan other = SpanOf(RecordFrom<ProtectionRecord>(bytes)).span;
    known = other.site == span.site && other.from <= span.from && other.to >= span.to;
    return !known;
  });
  const bool done = read && (known || list.Append(BytesOf(RecordOf(span, WallSeconds()))));
  return done ? "" : NotWritten(root);
}

// What is left of a span stands in the list before the span goes: a kill leaves too much protected.
std::string ReleaseRecordings(const std::string& root, const SiteSpan& span) {
  if (std::string error = WhyNot(root, span); !error.empty()) {
    return error;
  }
  ScopeLock hold(ProtectionLock());
  DatabaseFile list(ListOf(root), sizeof(ProtectionRecord), DatabaseAccess::kChange);
  if (!list) {
    return list.Missing() ? "" : NotWritten(root);
  }
  const auto touches = [&span](const ProtectedSpan& other) {
    return other.span.site == span.site && other.span.from <= span.to && other.span.to >= span.from;
  };
  std::vector<ProtectionRecord> rest;
  bool done = list.ForEach([&](auto bytes) {
    const ProtectedSpan other = SpanOf(RecordFrom<ProtectionRecord>(bytes));
    if (touches(other) && other.span.from < span.from) {
      rest.push_back(RecordOf({span.site, other.span.from, span.from - 1}, other.since));
    }
    if (touches(other) && other.span.to > span.to) {
      rest.push_back(RecordOf({span.site, span.to + 1, other.span.to}, other.since));
    }
    return true;
  });
  for (const ProtectionRecord& record : rest) {
    done = done && list.Append(BytesOf(record));
  }
  done = done && list.Filter([&](auto bytes) {
    return !touches(SpanOf(RecordFrom<ProtectionRecord>(bytes)));
  });
  return done ? "" : NotWritten(root);
}

ProtectedSpans ReadProtectedSpans(const std::string& root) {
  ProtectedSpans result;
  result.error = CheckDataRoot(CurrentFileIo(), root);
  if (!result.error.empty()) {
    return result;
  }
  auto list =
      ReadDatabase<ProtectionRecord, ProtectedSpan>(ListOf(root), ProtectionLock(), SpanOf, root);
  if (list.state == DatabaseState::kUnreadable) {
    result.error = root + "/KeepList0 cannot be read; see to its rights and to its disk";
  }
  result.spans = std::move(list.rows);
  return result;
}

std::string ReadProtection(const std::string& root, SiteTimes& times) {
  ProtectedSpans list = ReadProtectedSpans(root);
  for (const ProtectedSpan& each : list.spans) {
    times.Add(each.span.site, each.span.from, each.span.to);
  }
  return list.error;
}

std::vector<std::optional<SiteSpan>> SpansOfRecordings(const std::string& root,
                                                       const std::vector<std::string>& files) {
  std::vector<std::optional<SiteSpan>> spans(files.size());
  if (!CheckDataRoot(CurrentFileIo(), root).empty()) {
    return spans;
  }
  const RecordingInventory inventory(CurrentFileIo(), root);
  std::map<std::string, SiteSpan> known;
  for (const StoredRecording& recording : inventory.Recordings()) {
    SiteSpan span{recording.site, recording.start, recording.end};
    if (span.to - span.from >= 2) {
      ++span.from;
      --span.to;
    }
    known.emplace(inventory.PathOf(recording), span);
  }
  for (std::size_t i = 0; i < files.size(); ++i) {
    if (const auto found = known.find(files[i]); found != known.end()) {
      spans[i] = found->second;
    }
  }
  return spans;
}

}  // namespace cms
