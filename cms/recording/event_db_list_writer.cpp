#include "cms/recording/event_db_list_writer.h"

#include <utility>

#include "cms/recording/internal/database_file.h"
#include "cms/recording/internal/database_locks.h"
#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/record_bytes.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/recording_names.h"
#include "cms/runtime/native_path.h"
#include "cms/runtime/wide_text.h"

namespace FX {

namespace {
constexpr unsigned kCmsNumber = 0;
constexpr unsigned kGroupNumber = 0;
constexpr int kEventList = 0;  // every recorder of the process writes the same list
}  // namespace

struct FX_EventDBListWriter::Pending {
  FX_EventDBInfo info;
  char16_t listPath[260] = {};
  std::string dataRoot;
};

FX_EventDBListWriter::FX_EventDBListWriter() = default;
FX_EventDBListWriter::~FX_EventDBListWriter() = default;

void FX_EventDBListWriter::SetDataRoot(const std::string& folder) {
  const std::string root = cms::WholeDataRoot(folder);
  ScopeLock hold(lock_);
  dataRoot_ = root;
}

void FX_EventDBListWriter::InitialEventDBInfo(const wchar_t* drvPath, unsigned channel,
                                              unsigned type, std::uint8_t preAlarm,
                                              std::uint16_t port, const wchar_t* siteName,
                                              const wchar_t* address) {
  if (channel >= kChannels) {
    return;
  }
  const auto name = cms::SplitAtLastSeparator(cms::TextOf(drvPath)).name;
  WriteDBInfoIntoList(channel);
  auto pending = std::make_unique<Pending>();
  pending->info = FX_EventDBInfo(
      kCmsNumber, kGroupNumber, static_cast<std::uint32_t>(cms::SiteNumberOf(name).value_or(0)),
      static_cast<std::uint16_t>(channel), type, preAlarm, port, siteName, address);
  cms::StoreUtf16(cms::EventListPath(kEventList), pending->listPath);
  ScopeLock hold(lock_);
  pending->dataRoot = dataRoot_;
  slots_[channel] = std::move(pending);
}

void FX_EventDBListWriter::SetRecordTime(std::int64_t time, unsigned channel) {
  ScopeLock hold(lock_);
  if (channel < kChannels && slots_[channel]) {
    slots_[channel]->info.SetRecordTime(time);
  }
}

void FX_EventDBListWriter::SetPreAlarm(std::uint8_t seconds, unsigned channel) {
  ScopeLock hold(lock_);
  if (channel < kChannels && slots_[channel]) {
    slots_[channel]->info.SetPreAlarm(seconds);
  }
}

bool FX_EventDBListWriter::WriteDBInfoIntoList(unsigned channel) {
  ScopeLock databases(cms::EventDatabaseLock());
  std::unique_ptr<Pending> pending;
  if (channel < kChannels) {
    ScopeLock hold(lock_);
    pending = std::move(slots_[channel]);
  }
  if (!pending || pending->info.GetStartTime() == 0 || pending->info.GetEndTime() == 0) {
    return true;
  }
  cms::DatabaseFile list(cms::LoadUtf16(pending->listPath), sizeof(FX_EventDBInfo),
                         cms::DatabaseAccess::kCreate, pending->dataRoot);
  return list && list.Append(cms::BytesOf(pending->info));
}

bool FX_EventDBListWriter::IsInitial(unsigned channel) const {
  ScopeLock hold(lock_);
  return channel < kChannels && slots_[channel] != nullptr;
}

}  // namespace FX
