#include "cms/recording/internal/event_mend.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>

#include "cms/recording/channel_set.h"
#include "cms/recording/event_db_info.h"
#include "cms/recording/idx_file.h"
#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/error_of.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/recording_kind.h"
#include "cms/runtime/wide_text.h"

namespace cms {

// An event as frames tell it.
struct EventMend::Run {
  RecordKind kind = RecordKind::kDeviceEvent;
  unsigned channel = 0;
  std::int64_t recorded = 0;  // its first frame
  std::int64_t start = 0;     // the first with a mark; 0: none had one
  std::int64_t end = 0;
  bool open = false;  // it goes on

  std::int64_t Start() const { return start != 0 ? start : recorded; }
};

// Those of recordings that follow each other.
class EventMend::Runs {
 public:
  void Take(const DrvIdx& record) {
    if (record.channel >= kChannels) {
      return;
    }
    const auto seconds = static_cast<std::int64_t>(record.milliseconds / 1000);
    for (const RecordKind kind : kEventKinds) {
      Run& run = current_[IndexOf(kind)][record.channel];
      const bool runs = record.state == 0 ? run.open : (record.state & BitOf(kind)) != 0;
      if (run.open && (!runs || !TimeSpan{run.recorded, run.end}.IsNear(seconds))) {
        done_.push_back(run);
        run = {};
      }
      if (!runs || (record.state == 0 && !run.open)) {
        continue;
      }
      if (!run.open) {
        run = {kind, record.channel, seconds, 0, seconds, true};
      }
      run.end = std::max(run.end, seconds);
      if (run.start == 0 && (record.secondState & BitOf(kind)) != 0) {
        run.start = seconds;
      }
    }
  }

  // Those that ended before it are not told any more.
  void Forget(std::int64_t begin) {
    std::erase_if(done_, [&](const Run& run) { return run.end < begin; });
  }

  std::vector<Run> All() const {
    std::vector<Run> all = done_;
    for (const auto& channels : current_) {
      std::copy_if(channels.begin(), channels.end(), std::back_inserter(all),
                   [](const Run& run) { return run.open; });
    }
    return all;
  }

 private:
  std::vector<Run> done_;
  std::array<std::array<Run, kChannels>, kEventKinds.size()> current_;
};

EventMend::EventMend(FileIo& io, std::string dataRoot)
    : io_(io),
      dataRoot_(std::move(dataRoot)),
      list_(EventListPath(0), EventDatabaseLock(), dataRoot_) {}

EventMend::~EventMend() = default;

// When its first frame was recorded; 0: it has none.
std::int64_t EventMend::Take(const std::string& index) {
  lastIndex_ = index;
  const ScopedFile file(io_, index, kFileRead);
  if (!file) {
    return 0;
  }
  IdxReader reader(io_, file.Handle());
  std::int64_t begin = 0;
  bool first = true;
  while (const auto record = reader.Next()) {
    if (std::exchange(first, false)) {
      begin = static_cast<std::int64_t>(record->milliseconds / 1000);
    }
    runs_->Take(*record);
  }
  return begin;
}

void EventMend::ReadList() {
  list_.Look([this] { known_.clear(); },
             [this](const FX::FX_EventDBInfo& event) {
               known_[event.GetSiteNumber()].push_back({event.GetChNumber(), event.GetType(),
                                                        event.GetStartTime(), event.GetEndTime()});
             });
}

bool EventMend::Mend(const std::vector<std::string>& indexes, const RecordRow& site) {
  const auto last = std::find(indexes.rbegin(), indexes.rend(), lastIndex_);
  auto next = last.base();  // the front when it is not among them
  if (!runs_ || next == indexes.begin() || next == indexes.end()) {
    runs_ = std::make_unique<Runs>();
    next = indexes.begin();
  }
  std::int64_t begin = 0;  // of the recording
  for (; next != indexes.end(); ++next) {
    const std::int64_t own = Take(*next);
    begin = own != 0 ? own : begin;
  }
  runs_->Forget(begin);
  std::vector<Run> missing = runs_->All();
  std::erase_if(missing, [&](const Run& run) { return run.end < begin; });
  if (missing.empty()) {
    return true;
  }
  ReadList();
  const std::vector<Known>& rows = known_[site.siteNumber];
  return std::all_of(missing.begin(), missing.end(), [&](Run& run) {
    constexpr std::int64_t kSameEnd = 2;
    for (const Known& row : rows) {
      const bool same = row.channel == run.channel && row.type == EventTypeOf(run.kind);
      if (same && row.start <= run.end && row.end >= run.recorded) {
        if (row.end + kSameEnd >= run.end) {
          return true;
        }
        run.recorded = row.end + 1;  // what went on behind it
        run.start = run.recorded;
      }
    }
    return Add(run, site);
  });
}

bool EventMend::Add(const Run& run, const RecordRow& site) {
  const std::int64_t preAlarm = std::clamp<std::int64_t>(run.Start() - run.recorded, 0, 255);
  FX::FX_EventDBInfo event(0, 0, site.siteNumber, static_cast<std::uint16_t>(run.channel),
                           EventTypeOf(run.kind), static_cast<std::uint8_t>(preAlarm), site.port,
                           WideFromUtf8(site.siteName).c_str(), WideFromUtf8(site.address).c_str());
  event.SetStartTime(run.Start());
  event.SetEndTime(std::max(run.end, run.Start() + 1));  // a search looks for spans
  ScopeLock databases(EventDatabaseLock());
  DatabaseFile list(EventListPath(0), sizeof event, DatabaseAccess::kCreate, dataRoot_);
  if (!list || !list.Append(BytesOf(event))) {
    errno = ErrorOf(errno);
    return false;
  }
  ++added_;
  return true;
}

}  // namespace cms
