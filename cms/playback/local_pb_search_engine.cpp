#include "cms/playback/local_pb_search_engine.h"

#include <algorithm>
#include <cstddef>
#include <ctime>
#include <limits>
#include <optional>
#include <string>

#include "cms/playback/internal/playback_spans.h"
#include "cms/playback/internal/record_lists.h"
#include "cms/recording/data_root.h"
#include "cms/recording/event_db_info.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/rec_folder_db_writer.h"
#include "cms/recording/recording_kind.h"
#include "cms/runtime/wide_text.h"

namespace {

constexpr std::int64_t kSecondsOfDay = 86'400;

// The first second of a month in UTC; month 13 is the first of the next year.
std::int64_t MonthBegin(int year, int month) {
  std::tm parts{};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = 1;
  return timegm(&parts);
}

int KindOf(unsigned type) {
  return type == cms::kRecordAlarm       ? stLocalEvent::kAlarm
         : type == cms::kRecordVideoLoss ? stLocalEvent::kVideoLoss
                                         : stLocalEvent::kDeviceEvent;
}

stLocalEvent EventOf(const FX_EventDBInfo& info) {
  stLocalEvent event;
  event.siteNumber = info.GetSiteNumber();
  event.kind = KindOf(info.GetType());
  event.channel = info.GetChNumber() + 1u;
  event.cmsNumber = info.GetCMSNumber();
  event.groupNumber = info.GetGroupNumber();
  event.start = info.GetStartTime();
  event.end = info.GetEndTime();
  event.siteName = cms::Utf8FromWide(info.GetSiteNameW());
  event.address = cms::Utf8FromWide(info.GetAddressW());
  return event;
}

std::int64_t Before(std::int64_t time, unsigned seconds) {
  std::int64_t earlier = 0;
  return __builtin_sub_overflow(time, std::int64_t{seconds}, &earlier)
             ? std::numeric_limits<std::int64_t>::min()
             : earlier;
}

}  // namespace

struct LocalPBSearchEngine::State {
  unsigned cmsNumber = 0;
  unsigned value2 = 0;
  std::int64_t from = 0;
  std::int64_t to = 0;
  bool monthMode = false;
  int year = 0;
  int month = 0;  // from 1
  std::array<int, 32> days{};
  bool readEverything = true;
  std::string dataRoot;  // as it was given
  std::optional<cms::RecordLists> lists;
  std::string listsRoot;  // of what they remember
  cms::PlaybackSpans spans;
  std::vector<stLocalEvent> events;

  bool IsFullRange() const { return from == kFullRangeStart && to == kFullRangeEnd; }

  // The place in `days` of a moment of the month searched; 0 for others, which mark nothing.
  std::size_t DayOf(std::int64_t time) const {
    return time < from || time > to ? 0
                                    : static_cast<std::size_t>((time - from) / kSecondsOfDay) + 1;
  }

  void ClearResults() {
    spans.Clear();
    events.clear();
    readEverything = true;
  }

  void LoadFolders(bool withDetails);
  bool KeepEvent(const FX_EventDBInfo& info, const LocalPBSearchEngine& engine);
};

void LocalPBSearchEngine::State::LoadFolders(bool withDetails) {
  cms::RecordQuery query;
  query.from = from;
  query.to = to;
  query.withBytes = withDetails;
  // One file that is there decides a day: without details the others are not looked for.
  query.wanted = [&](std::int64_t start) {
    const std::size_t day = monthMode ? DayOf(start) : 0;
    return withDetails || (day != 0 && days[day] == 0);
  };
  query.found = [&](std::int64_t start, std::span<const std::uint8_t> record) {
    if (monthMode) {
      days[DayOf(start)] = 1;
    }
    if (withDetails) {
      spans.Add(cms::RecordFrom<FX_RecordDBInfo>(record));
    }
  };
  const std::string root = cms::DataRootOr(dataRoot);
  std::vector<std::string> folders;
  {
    ScopeLock databases(cms::FolderDatabaseLock());
    cms::DatabaseFile list(cms::FolderListPath(cmsNumber), sizeof(cms::stRecFolderDB),
                           cms::DatabaseAccess::kRead, root);
    const bool read = list && list.ForEach([&](auto entry) {
      folders.push_back(cms::PathInData(cms::LoadUtf16(entry), root));
      return true;
    });
    readEverything = read || list.Missing();
  }
  if (!root.empty() && !std::ranges::count(folders, cms::RecordingsOf(root))) {
    folders.push_back(cms::RecordingsOf(root));
  }
  if (!lists || listsRoot != root) {
    lists.emplace(cms::CurrentFileIo(), root);
    listsRoot = root;
  }
  lists->BeginQuery();
  for (const std::string& folder : folders) {
    readEverything = lists->AskEach(folder, query) && readEverything;
  }
  days[0] = 0;
}

// What becomes of a record of the event list; shows the event when a stretch does.
bool LocalPBSearchEngine::State::KeepEvent(const FX_EventDBInfo& info,
                                           const LocalPBSearchEngine& engine) {
  if (info.GetCMSNumber() != cmsNumber) {
    return true;
  }
  stLocalEvent event = EventOf(info);
  const int verdict = engine.validateEventWithDB(event, info.GetPreAlarm());
  if (verdict == 1) {
    events.push_back(std::move(event));
  }
  return verdict != 0;
}

LocalPBSearchEngine::LocalPBSearchEngine() : state_(std::make_unique<State>()) {}
LocalPBSearchEngine::~LocalPBSearchEngine() = default;

void LocalPBSearchEngine::setCMSInfo(unsigned cmsNumber, unsigned value2) {
  state_->cmsNumber = cmsNumber;
  state_->value2 = value2;
}

void LocalPBSearchEngine::SetDataRoot(const std::string& folder) {
  state_->dataRoot = cms::WholeDataRoot(folder);
}

void LocalPBSearchEngine::setSearchYearAndMonth(int year, int month) {
  state_->monthMode = true;
  state_->year = year;
  state_->month = month;
  const bool exists = year >= 1 && year <= 9999 && month >= 1 && month <= 12;
  state_->from = exists ? MonthBegin(year, month) : 0;
  state_->to = exists ? MonthBegin(year, month + 1) - 1 : -1;
}

void LocalPBSearchEngine::searchPlaybackInfoForMonth(bool withDetails) {
  state_->days = {};
  state_->ClearResults();
  state_->LoadFolders(withDetails);
  if (withDetails) {
    state_->spans.Join();
    loadEventList();
  }
}

void LocalPBSearchEngine::searchByInterval(std::int64_t start, std::int64_t end) {
  state_->monthMode = false;
  state_->ClearResults();
  state_->from = start;
  state_->to = end;
  state_->LoadFolders(true);
  state_->spans.Join();
}

void LocalPBSearchEngine::loadEventList() {
  state_->events.clear();
  const std::wstring path = cms::EventListPath(static_cast<int>(state_->cmsNumber));
  const auto keep = [&](std::span<const std::uint8_t> record) {
    return state_->KeepEvent(cms::RecordFrom<FX_EventDBInfo>(record), *this);
  };
  const bool prunes = state_->IsFullRange() && state_->spans.Joined() && state_->readEverything;
  {
    ScopeLock databases(cms::EventDatabaseLock());
    bool read = false;
    bool missing = false;
    if (prunes) {
      cms::DatabaseFile list(path, sizeof(FX_EventDBInfo), cms::DatabaseAccess::kChange,
                             state_->dataRoot);
      missing = list.Missing();
      read = list && list.Filter(keep);
    }
    if (!read && !missing) {
      state_->events.clear();  // what may not be changed may still be read
      cms::DatabaseFile list(path, sizeof(FX_EventDBInfo), cms::DatabaseAccess::kRead,
                             state_->dataRoot);
      missing = list.Missing();
      read = list && list.ForEach([&](auto record) {
        keep(record);
        return true;
      });
    }
    state_->readEverything = state_->readEverything && (read || missing);
  }
  std::stable_sort(state_->events.begin(), state_->events.end(),
                   [](const auto& a, const auto& b) { return a.start < b.start; });
}

const std::array<int, 32>& LocalPBSearchEngine::getMonthInfo() const {
  return state_->days;
}

int LocalPBSearchEngine::getCurrentYear() const {
  return state_->year;
}

int LocalPBSearchEngine::getCurrentMonth() const {
  return state_->month;
}

void LocalPBSearchEngine::getSearchResultByInterval(SpanIterator& first, SpanIterator& last) const {
  first = state_->spans.Spans().begin();
  last = state_->spans.Spans().end();
}

const std::vector<stPBTimeInfo>& LocalPBSearchEngine::getNormalPBInfo() const {
  return state_->spans.Spans();
}

const std::vector<stLocalEvent>& LocalPBSearchEngine::getEventTimes() const {
  return state_->events;
}

int LocalPBSearchEngine::validateEventWithDB(stLocalEvent& event, unsigned preAlarm) const {
  const State& state = *state_;
  if (!state.spans.Joined()) {
    return 2;
  }
  const stPBTimeInfo* const span =
      state.spans.Overlapping(event.siteNumber, event.start, event.end);
  if (span == nullptr) {
    return state.IsFullRange() ? 0 : 2;
  }
  event.start = std::max(Before(event.start, preAlarm), span->start);
  event.end = std::min(event.end, span->end);
  return 1;
}

bool LocalPBSearchEngine::hasReadEverything() const {
  return state_->readEverything;
}
