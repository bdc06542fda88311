// The buffers of a CLFXDRVWriter, and how they reach the write queue.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/recording/drv_writer.h"
#include "cms/recording/internal/recording_disk.h"
#include "cms/runtime/clock.h"

namespace CLFX {

void CLFXDRVWriter::WriteDrvIdx() {
  ScopeLock hold(lock_);
  if (!file_) {
    return;
  }
  if (idxBuffered_ > kBufferSize - sizeof record_) {
    MemoryIdxToFile(false);
  }
  if (idxBuffered_ == 0) {
    idxBufferedSince_ = cms::TickMilliseconds();
  }
  DrvIdx record = record_;
  record.offset -= static_cast<std::uint32_t>(begin_);
  std::memcpy(idxData_.get() + idxBuffered_, &record, sizeof record);
  idxBuffered_ += sizeof record;
}

void CLFXDRVWriter::AddData(std::span<const std::span<const std::uint8_t>> blocks,
                            std::uint64_t length) {
  if (buffered_ + length > flushThreshold_) {
    MemoryRecordToFile(false);
  }
  if (buffered_ == 0) {
    bufferedSince_ = cms::TickMilliseconds();
  }
  for (std::span<const std::uint8_t> rest : blocks) {
    while (!rest.empty()) {
      if (buffered_ == kBufferSize) {  // a frame larger than the buffer
        MemoryRecordToFile(false);
      }
      const std::size_t count = std::min<std::size_t>(rest.size(), kBufferSize - buffered_);
      std::memcpy(data_.get() + buffered_, rest.data(), count);
      buffered_ += static_cast<std::uint32_t>(count);
      rest = rest.subspan(count);
    }
  }
}

void CLFXDRVWriter::MemoryRecordToFile(bool last) {
  if (!file_ || buffered_ == 0) {
    return;
  }
  if (!disk_->Write(cms::RecordingPart::kDrv, {data_.get(), buffered_}, last, !neverWait_)) {
    status_.lostBytes += buffered_;
    file_->error = ETIMEDOUT;
  }
  handedOver_ += std::exchange(buffered_, 0);
}

void CLFXDRVWriter::MemoryIdxToFile(bool last) {
  if (!file_ || idxBuffered_ == 0) {
    return;
  }
  if (!disk_->Write(cms::RecordingPart::kIdx, {idxData_.get(), idxBuffered_}, last, !neverWait_)) {
    file_->error = ETIMEDOUT;
  }
  idxBuffered_ = 0;
}

}  // namespace CLFX
