// The buffers of a CLFXDRVWriter, and how they reach the write queue.
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "cms/recording/drv_writer.h"
#include "cms/runtime/clock.h"

namespace CLFX {

void CLFXDRVWriter::WriteDrvIdx() {
  ScopeLock hold(lock_);
  if (idx_ < 0) {
    return;
  }
  if (idxBuffered_ > kBufferSize - sizeof record_) {
    MemoryIdxToFile(false);
  }
  if (idxBuffered_ == 0) {
    idxBufferedSince_ = cms::TickMilliseconds();
  }
  std::memcpy(idxData_.get() + idxBuffered_, &record_, sizeof record_);
  idxBuffered_ += sizeof record_;
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

void CLFXDRVWriter::MemoryRecordToFile(bool close) {
  if (drv_ < 0 || (buffered_ == 0 && !close)) {
    return;
  }
  const bool queued =
      ControlWriteFile::GetInstance()->AddToQueue(drv_, data_.get(), buffered_, close, drvStatus_);
  if (!queued) {  // the process ends
    drvStatus_->error = ESHUTDOWN;
    status_.lostBytes += buffered_;
  }
  if (close && !queued) {
    cms::CurrentFileIo().Close(drv_);
    drvStatus_->closed = true;
  }
  handedOver_ += std::exchange(buffered_, 0);
}

void CLFXDRVWriter::MemoryIdxToFile(bool close) {
  if (idx_ < 0 || (idxBuffered_ == 0 && !close)) {
    return;
  }
  const bool queued = ControlWriteFile::GetInstance()->AddToQueue(idx_, idxData_.get(),
                                                                  idxBuffered_, close, idxStatus_);
  if (!queued) {
    idxStatus_->error = ESHUTDOWN;
  }
  if (close && !queued) {
    cms::CurrentFileIo().Close(idx_);
    idxStatus_->closed = true;
  }
  idxBuffered_ = 0;
}

void CLFXDRVWriter::CloseWriteDrvFile() {
  MemoryRecordToFile(true);
  drv_ = -1;
}

void CLFXDRVWriter::CloseWriteIdxFile() {
  MemoryIdxToFile(true);
  idx_ = -1;
}

}  // namespace CLFX
