#include "cms/recording/move_file_client.h"

#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <system_error>
#include <utility>

#include "cms/recording/data_root.h"
#include "cms/recording/internal/file_move.h"
#include "cms/runtime/file_io.h"
#include "cms/runtime/log.h"

namespace {

constexpr int kRetryMilliseconds = 2000;
constexpr int kHighPriority = -10;

bool IsGoneForMove(const std::string& source) {
  cms::FileStatus status;
  return !cms::CurrentFileIo().Status(source, status) && errno == ENOENT;
}

}  // namespace

CLFX_MOVEFILE_Client::CLFX_MOVEFILE_Client() {
  SetName("cms-file-mover");
}

CLFX_MOVEFILE_Client::~CLFX_MOVEFILE_Client() {
  StopMove();
  WaitThread(kNoTimeLimit);
}

void CLFX_MOVEFILE_Client::AddMove(std::wstring source, std::wstring destination) {
  {
    ScopeLock lock(lock_);
    pairs_.push_back({std::move(source), std::move(destination)});
  }
  changed_.Set();
}

bool CLFX_MOVEFILE_Client::StartMove() {
  return StartThread() == 2;
}

void CLFX_MOVEFILE_Client::StopMove() {
  EndThread();
  changed_.Set();
}

int CLFX_MOVEFILE_Client::LastMove() {
  int failed = 0;
  for (;;) {
    ScopeLock moving(moving_);
    Pair pair;
    if (!Front(pair)) {
      break;
    }
    failed += Move(pair) ? 0 : 1;
    RemoveFront();
  }
  changed_.Set();
  return failed;
}

bool CLFX_MOVEFILE_Client::Supervision(std::uint32_t timeoutMs) {
  if (WaitThread(timeoutMs) != 0) {
    return false;
  }
  CloseThread();
  return true;
}

void CLFX_MOVEFILE_Client::SetHighPriority() {
  highPriority_ = true;
  changed_.Set();
}

std::size_t CLFX_MOVEFILE_Client::Pending() const {
  ScopeLock lock(lock_);
  return pairs_.size();
}

std::uint32_t CLFX_MOVEFILE_Client::ThreadRoutine() {
  while (IsKeepWorking()) {
    OnMoveFile();
  }
  return 0;
}

void CLFX_MOVEFILE_Client::OnMoveFile() {
  if (highPriority_.exchange(false)) {
    setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), kHighPriority);
  }
  changed_.Reset();
  if (!IsKeepWorking()) {
    return;
  }
  int wait = cms::Event::kForever;
  {
    ScopeLock moving(moving_);
    Pair pair;
    if (Front(pair) && pair.IsMove()) {
      if (Move(pair)) {
        RemoveFront();
        return;
      }
      wait = kRetryMilliseconds;
    }
  }
  changed_.Wait(wait);
}

bool CLFX_MOVEFILE_Client::Front(Pair& pair) const {
  ScopeLock lock(lock_);
  if (pairs_.empty()) {
    return false;
  }
  pair = pairs_.front();
  return true;
}

void CLFX_MOVEFILE_Client::RemoveFront() {
  ScopeLock lock(lock_);
  pairs_.pop_front();
}

bool CLFX_MOVEFILE_Client::Move(const Pair& pair) {
  if (!pair.IsMove()) {
    return false;
  }
  cms::FileIo& io = cms::CurrentFileIo();
  const std::string destination = cms::PathInData(pair.destination);
  const std::string source = cms::PathInData(pair.source);
  int error = cms::MoveFile(io, source, destination);
  error = error == ENOENT && passGone_ && IsGoneForMove(source) ? 0 : error;
  if (const std::string folder = cms::NativeFolderOf(destination); error == 0 && folder != swept_) {
    cms::RemoveMovingFiles(io, folder);
    swept_ = folder;
  }
  if (error == 0 ? cms::IsLogged(cms::LogLevel::kInfo) : cms::IsLogged(cms::LogLevel::kWarning)) {
    const std::string both = cms::PathInData(pair.source) +
                             (error == 0 ? ": moved to " : ": cannot be moved to ") + destination;
    cms::Log(error == 0 ? cms::LogLevel::kInfo : cms::LogLevel::kWarning, "move",
             error == 0 ? both
                        : both + ": " + std::generic_category().message(error) +
                              "; tried again every two seconds");
  }
  lastError_ = error;
  return error == 0;
}
