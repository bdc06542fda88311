#include "cms/recording/drv_writer.h"

#include <utility>

#include "cms/recording/internal/database_paths.h"
#include "cms/recording/internal/exit_stops.h"
#include "cms/recording/internal/record_text.h"
#include "cms/recording/internal/recording_disk.h"
#include "cms/recording/internal/recording_file.h"
#include "cms/recording/internal/recording_series.h"
#include "cms/recording/internal/recording_slots.h"
#include "cms/runtime/clock.h"

namespace CLFX {
namespace {

constexpr int kOpenMilliseconds = 3000;

static_assert(CLFXDRVWriter::kBufferSize == cms::RecordingBuffer::kSize);

}  // namespace

CLFXDRVWriter::CLFXDRVWriter() : series_(std::make_unique<cms::RecordingSeries>(status_)) {
  AtExit([this] { StopRecord(); });
}

CLFXDRVWriter::~CLFXDRVWriter() {
  NoExitStop();
  std::shared_ptr<cms::RecordingDisk> disk;
  {
    ScopeLock hold(lock_);
    series_->NeverWait();  // what is reserved is enough for the end of the file
    StopRecord();
    disk = series_->Disk();
  }
  if (disk) {
    disk->End();
  }
}

void CLFXDRVWriter::AtExit(std::function<void()> stop) {
  cms::ExitStops::Instance().Add(this, [this, stop = std::move(stop)] {
    NeverWaitForDisk();
    stop();
  });
}

void CLFXDRVWriter::NoExitStop() {
  cms::ExitStops::Instance().Remove(this);
}

// --- Starting and stopping ----------------------------------------------------------------------

bool CLFXDRVWriter::StartRecord(const wchar_t* path, int sizeMiB, int limit2, int /*value3*/,
                                const wchar_t* /*text5*/) {
  ScopeLock hold(lock_);
  if (!series_->Start(Located(path), sizeMiB, limit2)) {
    return false;
  }
  if (series_->NeverWaits()) {
    return true;
  }
  const auto file = series_->File();
  const auto disk = series_->Disk();
  hold.UnLock();
  disk->WaitOpened(*file, kOpenMilliseconds);
  hold.Lock();
  return series_->ConfirmStart(file);
}

bool CLFXDRVWriter::StartRecordAgain() {
  std::wstring path;
  int sizeMiB = 0;
  int limit2 = 0;
  {
    ScopeLock hold(lock_);
    path = series_->Target().path;
    sizeMiB = series_->Target().sizeMiB;
    limit2 = series_->Target().limit2;
  }
  return StartRecord(path.c_str(), sizeMiB, limit2, 0, nullptr);
}

bool CLFXDRVWriter::GoesOn() const {
  ScopeLock hold(lock_);
  return series_->HasOpenFile() || (series_->IsStarted() && series_->NeverWaits());
}

void CLFXDRVWriter::StopRecord() {
  ScopeLock hold(lock_);
  series_->Stop();
}

bool CLFXDRVWriter::IsRecording() {
  ScopeLock hold(lock_);
  return series_->HasOpenFile();
}

// --- What files are to be -----------------------------------------------------------------------

void CLFXDRVWriter::SetDataRoot(const std::string& folder) {
  const std::string root = cms::WholeDataRoot(folder);
  ScopeLock hold(lock_);
  series_->Target().dataRoot = root;
}

std::string CLFXDRVWriter::DataRoot() const {
  ScopeLock hold(lock_);
  return series_->Target().dataRoot;
}

std::wstring CLFXDRVWriter::Located(const wchar_t* path) const {
  return cms::LocatedInData(cms::TextOf(path), series_->Target().dataRoot);
}

void CLFXDRVWriter::SetTarget(const wchar_t* path, int sizeMiB, int limit2) {
  ScopeLock hold(lock_);
  series_->Target().sizeMiB = sizeMiB;
  series_->Target().limit2 = limit2;
  ChangeRecordPath(path);
}

void CLFXDRVWriter::ChangeRecordPath(const wchar_t* path) {
  ScopeLock hold(lock_);
  series_->ChangePath(Located(path));
}

void CLFXDRVWriter::SetDevice(const wchar_t* address, const wchar_t* siteName, std::uint16_t port) {
  ScopeLock hold(lock_);
  series_->Target().device = {std::wstring(cms::TextOf(address)),
                              std::wstring(cms::TextOf(siteName)), port};
}

const cms::RecordedDevice& CLFXDRVWriter::Device() const {
  return series_->Target().device;
}

void CLFXDRVWriter::SetStreamHeaders(std::span<const std::uint8_t> twelveBytes,
                                     std::span<const std::uint8_t> hundredThirtySixBytes,
                                     std::span<const std::uint8_t> codecConfiguration) {
  ScopeLock hold(lock_);
  auto& headers = series_->Target().streamHeaders;
  headers[0].assign(twelveBytes.begin(), twelveBytes.end());
  headers[1].assign(hundredThirtySixBytes.begin(), hundredThirtySixBytes.end());
  headers[2].assign(codecConfiguration.begin(), codecConfiguration.end());
}

// --- Changing files -----------------------------------------------------------------------------

bool CLFXDRVWriter::ChangeRecordFile() {
  ScopeLock hold(lock_);
  series_->Notice();
  if (!series_->HasOpenFile()) {
    return false;  // the next key frame begins a file anyway, if one is wanted
  }
  if (series_->HasFrame() && !series_->IsSilent()) {
    series_->ForceChange();
    return true;
  }
  return (!series_->HasFrame() && !series_->Target().newPath) || RollOver();
}

void CLFXDRVWriter::SetForceChangeFile() {
  ScopeLock hold(lock_);
  series_->ForceChange();
}

bool CLFXDRVWriter::RollOver() {
  cms::RecordingSlots::Instance().SetStartTime(series_->Target().NextPath(), cms::WallSeconds());
  return ChangeFile();
}

bool CLFXDRVWriter::ChangeFile() {
  ScopeLock hold(lock_);
  return series_->Change();
}

std::uint64_t CLFXDRVWriter::FileNumber() const {
  return series_->Number();
}

std::wstring CLFXDRVWriter::GetDrvPath() const {
  ScopeLock hold(lock_);
  return series_->DrvPath();
}

std::wstring CLFXDRVWriter::FrontOfPath() const {
  ScopeLock hold(lock_);
  return series_->File() ? series_->File()->front : series_->Target().path;
}

// --- Frames -------------------------------------------------------------------------------------

bool CLFXDRVWriter::Record(const void* data, std::uint32_t length, int frameKind) {
  const std::span<const std::uint8_t> block(static_cast<const std::uint8_t*>(data), length);
  ScopeLock hold(lock_);
  return AddData({&block, 1}, frameKind);
}

bool CLFXDRVWriter::AddData(std::span<const std::span<const std::uint8_t>> blocks, int frameKind) {
  std::uint64_t length = 0;
  for (const auto& block : blocks) {
    length += block.size();
  }
  if (length == 0) {
    return false;
  }
  const bool key = frameKind == cms::kBeginsFile;
  series_->Notice();
  const bool begins = series_->Begins(key || frameKind == cms::kSoundAlone);
  if (begins && series_->IsChangeWanted(length)) {
    RollOver();
  }
  if (!series_->Takes(length, begins)) {
    return false;
  }
  record_.offset = static_cast<std::uint32_t>(series_->Offset());
  series_->Add(blocks, length);
  series_->CountFrame(length, key);
  return true;
}

void CLFXDRVWriter::SetRecordTime(std::int64_t time) {
  ScopeLock hold(lock_);
  if (const auto& file = series_->File(); time > 0 && file) {
    cms::WidenRecordTimes(time, file->span.start, file->span.end);
  }
}

bool CLFXDRVWriter::BeginRecordSpan(std::int64_t time) {
  const auto& file = series_->File();
  if (!file || file->span.start == 0 || file->span.IsNear(time)) {
    return false;
  }
  file->earlierSpans.push_back(std::exchange(file->span, {}));
  return true;
}

std::uint32_t CLFXDRVWriter::GetDrvOffset() const {
  ScopeLock hold(lock_);
  return series_->HasOpenFile() ? static_cast<std::uint32_t>(series_->Offset()) : 0;
}

void CLFXDRVWriter::SetDrvIdx(const DrvIdx& record) {
  ScopeLock hold(lock_);
  record_ = record;
}

void CLFXDRVWriter::WriteDrvIdx() {
  ScopeLock hold(lock_);
  series_->AddIndex(record_);
}

// --- The owner's clock, and waiting -------------------------------------------------------------

void CLFXDRVWriter::Flush(std::uint32_t age) {
  ScopeLock hold(lock_);
  const auto disk = series_->Disk();
  if (!disk) {
    return;
  }
  series_->Notice();
  if (series_->IsDue()) {
    RollOver();
  }
  series_->Flush(age);
  disk->Look();
}

void CLFXDRVWriter::NeverWaitForDisk() {
  ScopeLock hold(lock_);
  series_->NeverWait();
}

bool CLFXDRVWriter::WaitOpened(int milliseconds) {
  ScopeLock hold(lock_);
  series_->Notice();
  if (series_->IsStarted() && !series_->File() && series_->MayBegin()) {
    RollOver();
  }
  const auto file = series_->File();
  const auto disk = series_->Disk();
  if (!file) {
    return false;
  }
  hold.UnLock();
  disk->WaitOpened(*file, milliseconds);
  hold.Lock();
  series_->Notice();
  return series_->File() != nullptr;
}

bool CLFXDRVWriter::WaitRecorded(int milliseconds) {
  std::shared_ptr<cms::RecordingDisk> disk;
  {
    ScopeLock hold(lock_);
    disk = series_->Disk();
  }
  // Twice: there may have been no room for all of it.
  for (int round = 0; disk && round < 2; ++round) {
    Flush(0);
    if (!disk->WaitIdle(milliseconds)) {
      return false;
    }
  }
  ScopeLock hold(lock_);
  series_->Notice();
  return true;
}

void CLFXDRVWriter::DoOnDisk(std::function<cms::DiskTaskResult()> task) {
  ScopeLock hold(lock_);
  if (const auto& disk = series_->Disk()) {
    disk->Store(std::move(task));
  }
}

// --- What became of it --------------------------------------------------------------------------

void CLFXDRVWriter::RememberFinished() {
  ScopeLock hold(lock_);
  series_->RememberFinished();
}

std::vector<cms::FinishedRecording> CLFXDRVWriter::TakeFinished() {
  ScopeLock hold(lock_);
  const auto& disk = series_->Disk();
  return disk ? disk->TakeFinished() : std::vector<cms::FinishedRecording>();
}

bool CLFXDRVWriter::IsSettled() const {
  ScopeLock hold(lock_);
  const auto& disk = series_->Disk();
  return !series_->File() && (!disk || disk->IsSettled());
}

cms::RecordingStatus CLFXDRVWriter::GetRecordingStatus() const {
  ScopeLock hold(lock_);
  return series_->Status();
}

}  // namespace CLFX
