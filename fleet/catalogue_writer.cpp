#include "fleet/catalogue_writer.h"

#include <poll.h>
#include <pthread.h>

#include <algorithm>
#include <iterator>
#include <utility>
#include <vector>

#include "fleet/boot_clock.h"

namespace cms::fleet {
namespace {

constexpr Tick kLookTurn{60'000};
constexpr Tick kFirstLooks{10'000};  // what a recorder that starts records is known soon
constexpr Tick kStarts{60'000};
constexpr std::int64_t kDayMilliseconds = 86'400'000;

}  // namespace

CatalogueWriter::CatalogueWriter(EngineAccess access, std::string name, HeldRecordings& recordings,
                                 TokenLog& tokens)
    : engine_(std::move(access)), name_(std::move(name)), recordings_(recordings), tokens_(tokens) {
  thread_ = std::thread([this] { Run(); });
}

CatalogueWriter::~CatalogueWriter() {
  ends_ = true;
  end_.Signal();
  thread_.join();
}

void CatalogueWriter::Run() {
  pthread_setname_np(pthread_self(), "fleet-days");
  const Tick begun = BootTick();
  Tick next = begun + kFirstLooks;
  while (!ends_) {
    const auto wait = std::max(next - BootTick(), Tick{0});
    pollfd waits[] = {{end_.Descriptor(), POLLIN, 0}, {tokens_.News().Descriptor(), POLLIN, 0}};
    poll(waits, std::size(waits), static_cast<int>(wait.count()));
    if (waits[1].revents != 0) {
      tokens_.News().Clear();
      tokens_.Save();
    }
    if (!ends_ && BootTick() >= next) {
      Write();
      next = BootTick() + (BootTick() - begun < kStarts ? kFirstLooks : kLookTurn);
    }
  }
}

// A restored engine has lost days: where the newest that was written is not there as it was, all
// are read and compared again.
void CatalogueWriter::Write() {
  recordings_.Look();
  std::map<std::string, std::string> wanted;
  for (auto& [day, record] : recordings_.Days()) {
    for (auto& [site, held] : record) {
      held.token = tokens_.At(site, (day + 1) * kDayMilliseconds - 1);
    }
    wanted[DayKey(day, name_)] = EncodeDay(record);
  }
  if (!written_.empty()) {
    const auto newest = engine_.Range(written_.rbegin()->first);
    isRead_ = isRead_ && !(newest && (newest->keys.empty() ||
                                      newest->keys.front().value != written_.rbegin()->second));
  }
  if (!isRead_) {
    written_.clear();
    const auto keys = engine_.Load(kDaysPrefix);
    for (const EngineKey& key : keys ? keys->keys : std::vector<EngineKey>{}) {
      const auto parts = ReadDayKey(key.key);
      if (parts && parts->recorder == name_) {
        written_[key.key] = key.value;
      }
    }
    isRead_ = keys.has_value();
  }
  for (const auto& [key, value] : wanted) {
    const auto found = written_.find(key);
    if (!ends_ && (found == written_.end() || found->second != value) && engine_.Put(key, value)) {
      written_[key] = value;
    }
  }
  for (auto each = written_.begin(); each != written_.end() && !ends_;) {
    const bool isOver = !wanted.contains(each->first);
    each = isOver && engine_.Delete(each->first) ? written_.erase(each) : std::next(each);
  }
}

}  // namespace cms::fleet
