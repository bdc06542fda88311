#include "cms/live/channel_data.h"

#include <algorithm>

#include "cms/runtime/clock.h"

CMSChannelDataBase::CMSChannelDataBase() : decoder_(std::make_shared<CMSDecoder>()) {
  decoder_->SetResultCallback(&CMSChannelDataBase::OnThreadResult, this);
}

CMSChannelDataBase::~CMSChannelDataBase() {
  ReleaseCodec();
}

int CMSChannelDataBase::GetVideoType() const {
  return cms::VideoTypeOfCodec(codec_.load(std::memory_order_relaxed));
}

int CMSChannelDataBase::InitialCodec(CMSCodecID codec) {
  ScopeLock lock(decodeLock_);
  SetVideoType(codec);
  if (codec != CMS_CODEC_MJPEG && codec != CMS_CODEC_H264) {
    return 0;
  }
  const DECODE_CODEC kind = codec == CMS_CODEC_MJPEG ? DECODE_CODEC_MJPEG : DECODE_CODEC_H264;
  if (decoder_->Create(kind, tagSIZE{}) != 0) {
    return 0;
  }
  decoderOpen_.store(true, std::memory_order_release);
  if (threaded_.load(std::memory_order_relaxed) && !threadRuns_) {
    threadRuns_ = decoder_->StartThread() == 0;
  }
  return 1;
}

void CMSChannelDataBase::ReleaseCodec() {
  ScopeLock lock(decodeLock_);
  if (threadRuns_) {
    decoder_->EndThread();
    threadRuns_ = false;
  }
  decoderOpen_.store(false, std::memory_order_release);
  decoder_->Release();
}

int CMSChannelDataBase::ReInitialCodec() {
  ScopeLock lock(decodeLock_);
  SetFindNextIFrameStatus(1);
  const CMSCodecID codec = codec_.load(std::memory_order_relaxed);
  if (codec != CMS_CODEC_MJPEG && codec != CMS_CODEC_H264) {
    return 0;
  }
  // The decode thread keeps running: it shares the decoder's lock.
  decoderOpen_.store(false, std::memory_order_release);
  decoder_->Release();
  return InitialCodec(codec);
}

int CMSChannelDataBase::CountResult(DECODE_RESULT result) {
  if (result == DECODE_RESULT_PICTURE) {
    decoded_.fetch_add(1, std::memory_order_relaxed);
    const std::uint64_t now = cms::TickMilliseconds();
    lastPicture_.store(now, std::memory_order_relaxed);
    if (FirstPictureTick() == 0) {
      firstPicture_.store(now, std::memory_order_relaxed);
    }
    const tagSIZE size = decoder_->GetDecodeImageSize();
    SetVideoWidthAndHeight(static_cast<unsigned>(size.cx), static_cast<unsigned>(size.cy));
    return 1;
  }
  if (result == DECODE_RESULT_NO_PICTURE) {
    return 0;
  }
  decodeErrors_.fetch_add(1, std::memory_order_relaxed);
  return -1;
}

void CMSChannelDataBase::OnThreadResult(void* context, DECODE_RESULT result) {
  auto* const channel = static_cast<CMSChannelDataBase*>(context);
  if (channel->CountResult(result) < 0) {
    channel->threadFailed_.store(true, std::memory_order_relaxed);
  }
}

int CMSChannelDataBase::DecodeFrame(const std::uint8_t* data, int size) {
  ScopeLock lock(decodeLock_);
  if (!decoderOpen_.load(std::memory_order_acquire)) {
    AddNotDecoded();
    return -1;
  }
  if (!threadRuns_) {
    int consumed = 0;
    return CountResult(decoder_->Decode(data, size, &consumed));
  }
  if (threadFailed_.exchange(false, std::memory_order_relaxed)) {
    return -1;
  }
  if (decoder_->PutBuffer(data, size) == 0) {
    AddNotDecoded();
    secondWait_.store(1, std::memory_order_relaxed);
    return 0;
  }
  secondWait_.store(0, std::memory_order_relaxed);
  return 0;
}

void CMSChannelDataBase::SetDisplaySize(const tagSIZE& size) {
  decoder_->SetDisplaySize(size, nullptr);
}

std::uint8_t* CMSChannelDataBase::LockDecodedImage(tagSIZE* size) {
  return decoder_->LockDecodedImage(size);
}

void CMSChannelDataBase::UnlockDecodedImage() {
  decoder_->UnlockDecodedImage();
}

void CMSChannelDataBase::SetDecoder(DECODER_PARAMETER_TYPE type, const void* value) {
  if (value == nullptr) {
    return;
  }
  switch (type) {
    case DECODER_PARAMETER_DISPLAY_SIZE:
      SetDisplaySize(*static_cast<const tagSIZE*>(value));
      break;
    case DECODER_PARAMETER_VIEW_MODE:
      decoder_->SetViewMode(*static_cast<const int*>(value));
      break;
    case DECODER_PARAMETER_DEWARP_POSITION: {
      const auto& position = *static_cast<const stDewarpPosition*>(value);
      decoder_->SetDewarpPosition(position.pan, position.tilt);
      break;
    }
    case DECODER_PARAMETER_DEWARP_ZOOM:
      decoder_->SetDewarpZoom(*static_cast<const float*>(value));
      break;
  }
}

void CMSChannelDataBase::GetPicture(void** picture, MEM_TYPE* type) {
  if (picture != nullptr) {
    *picture = nullptr;
  }
  if (type != nullptr) {
    *type = MEM_TYPE_NONE;
  }
}

void CMSChannelDataBase::EnableDecode() {
  SetFindNextIFrameStatus(1);
  decodeEnabled_.store(1, std::memory_order_relaxed);
  secondWait_.store(0, std::memory_order_relaxed);
}

void CMSChannelDataBase::SetVideoWidthAndHeight(unsigned width, unsigned height) {
  width_.store(width, std::memory_order_relaxed);
  height_.store(height, std::memory_order_relaxed);
}

void CMSChannelDataBase::GetVideoWidthAndHeight(unsigned* width, unsigned* height) const {
  *width = width_.load(std::memory_order_relaxed);
  *height = height_.load(std::memory_order_relaxed);
}

void CMSChannelDataBase::SetCameraTitle(const std::string& title) {
  ScopeLock lock(titleLock_);
  title_ = title;
}

void CMSChannelDataBase::GetCameraTitle(std::string* title) const {
  ScopeLock lock(titleLock_);
  *title = title_;
}

void CMSChannelDataBase::SetMetadata(const void* data, unsigned length) {
  const auto* const bytes = static_cast<const std::uint8_t*>(data);
  ScopeLock lock(metadataLock_);
  metadata_.assign(bytes, bytes + length);
}

unsigned CMSChannelDataBase::GetMetadata(void* destination, unsigned size) const {
  ScopeLock lock(metadataLock_);
  const auto count = std::min<std::size_t>(size, metadata_.size());
  std::copy_n(metadata_.data(), count, static_cast<std::uint8_t*>(destination));
  return static_cast<unsigned>(count);
}

void CMSChannelDataBase::SetLastEventTime(int kind, std::int64_t seconds) {
  if (kind >= 0 && kind < kEventKinds) {
    lastEvent_[static_cast<std::size_t>(kind)].store(seconds, std::memory_order_relaxed);
  }
}

int CMSChannelDataBase::IsEventUpToDuration(int kind, std::int64_t now) const {
  if (kind < 0 || kind >= kEventKinds) {
    return 0;
  }
  const auto last = lastEvent_[static_cast<std::size_t>(kind)].load(std::memory_order_relaxed);
  return now - last >= static_cast<std::int64_t>(GetRecDuration()) ? 1 : 0;
}

int CMSChannelDataBase::CreateFishEyeManager(const stFisheyeParameter& parameter) {
  return decoder_->CreateFishEyeManager(parameter);
}

void CMSChannelDataBase::ReleaseFishEyeManager() {
  decoder_->ReleaseFishEyeManager();
}

int CMSChannelDataBase::GetDewarpMode() const {
  return decoder_->GetDewarpMode();
}
