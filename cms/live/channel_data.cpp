#include "cms/live/channel_data.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <optional>
#include <vector>

#include "cms/runtime/clock.h"

namespace {

// Nothing for what channels do not decode.
std::optional<DECODE_CODEC> DecodeCodecOf(cms::CMSCodecID codec) {
  switch (codec) {
    case cms::CMS_CODEC_MJPEG:
      return DECODE_CODEC_MJPEG;
    case cms::CMS_CODEC_H264:
      return DECODE_CODEC_H264;
    case cms::CMS_CODEC_H265:
      return DECODE_CODEC_H265;
    case cms::CMS_CODEC_MPEG4:
      return DECODE_CODEC_MPEG4;
    default:
      return std::nullopt;
  }
}

}  // namespace

struct CMSChannelDataBase::State {
  static void OnThreadResult(void* context, DECODE_RESULT result);
  int CountResult(DECODE_RESULT result);

  CMSCritical decodeLock;  // feeding, opening and closing the decoder exclude each other
  const std::shared_ptr<CMSDecoder> decoder = std::make_shared<CMSDecoder>();
  std::atomic<bool> decoderOpen{false};
  std::atomic<bool> threadFailed{false};  // the decode thread met an error: re-open
  std::atomic<bool> threaded{false};
  bool threadRuns CMS_GUARDED_BY(decodeLock) = false;
  std::atomic<cms::CMSCodecID> codec{cms::CMS_CODEC_NONE};
  std::atomic<int> decodeEnabled{0};
  std::atomic<int> findIFrame{0};
  std::atomic<int> secondWait{0};
  std::atomic<unsigned> width{0};
  std::atomic<unsigned> height{0};
  std::atomic<unsigned> decoded{0};
  std::atomic<unsigned> notDecoded{0};
  std::atomic<unsigned> decodeErrors{0};
  std::atomic<std::uint64_t> firstPicture{0};
  std::atomic<std::uint64_t> lastPicture{0};
  std::atomic<unsigned> serial{0};
  std::atomic<std::int64_t> time{0};
  std::atomic<int> audioEnabled{0};
  std::atomic<int> audioOn{0};
  std::atomic<int> audioState{0};
  std::atomic<unsigned> duration{0};
  std::array<std::atomic<std::int64_t>, kEventKinds> lastEvent{};

  CMSCritical titleLock;
  std::string title CMS_GUARDED_BY(titleLock);
  CMSCritical metadataLock;
  std::vector<std::uint8_t> metadata CMS_GUARDED_BY(metadataLock);
  std::atomic<unsigned> metadataSerial{0};
  CMSCritical imageLock;  // guards nothing here: it is lent to the client application
};

CMSChannelDataBase::CMSChannelDataBase() : state_(std::make_unique<State>()) {
  state_->decoder->SetResultCallback(&State::OnThreadResult, state_.get());
}

CMSChannelDataBase::~CMSChannelDataBase() {
  ReleaseCodec();
}

int CMSChannelDataBase::GetVideoType() const {
  return cms::VideoTypeOfCodec(state_->codec.load(std::memory_order_relaxed));
}

int CMSChannelDataBase::InitialCodec(cms::CMSCodecID codec) {
  ScopeLock lock(state_->decodeLock);
  SetVideoType(codec);
  const auto kind = DecodeCodecOf(codec);
  if (!kind || state_->decoder->Create(*kind, tagSIZE{}) != 0) {
    return 0;
  }
  state_->decoderOpen.store(true, std::memory_order_release);
  if (state_->threaded.load(std::memory_order_relaxed) && !state_->threadRuns) {
    state_->threadRuns = state_->decoder->StartThread() == 0;
  }
  return 1;
}

void CMSChannelDataBase::ReleaseCodec() {
  ScopeLock lock(state_->decodeLock);
  if (state_->threadRuns) {
    state_->decoder->EndThread();
    state_->threadRuns = false;
  }
  state_->decoderOpen.store(false, std::memory_order_release);
  state_->decoder->Release();
}

int CMSChannelDataBase::ReInitialCodec() {
  ScopeLock lock(state_->decodeLock);
  SetFindNextIFrameStatus(1);
  const cms::CMSCodecID codec = state_->codec.load(std::memory_order_relaxed);
  if (!DecodeCodecOf(codec)) {
    return 0;
  }
  // The decode thread keeps running: it shares the decoder's lock.
  state_->decoderOpen.store(false, std::memory_order_release);
  state_->decoder->Release();
  return InitialCodec(codec);
}

int CMSChannelDataBase::State::CountResult(DECODE_RESULT result) {
  if (result == DECODE_RESULT_PICTURE) {
    decoded.fetch_add(1, std::memory_order_relaxed);
    const std::uint64_t now = cms::TickMilliseconds();
    lastPicture.store(now, std::memory_order_relaxed);
    if (firstPicture.load(std::memory_order_relaxed) == 0) {
      firstPicture.store(now, std::memory_order_relaxed);
    }
    const tagSIZE size = decoder->GetDecodeImageSize();
    width.store(static_cast<unsigned>(size.cx), std::memory_order_relaxed);
    height.store(static_cast<unsigned>(size.cy), std::memory_order_relaxed);
    return 1;
  }
  if (result == DECODE_RESULT_NO_PICTURE) {
    return 0;
  }
  decodeErrors.fetch_add(1, std::memory_order_relaxed);
  return -1;
}

void CMSChannelDataBase::State::OnThreadResult(void* context, DECODE_RESULT result) {
  auto* const state = static_cast<State*>(context);
  if (state->CountResult(result) < 0) {
    state->threadFailed.store(true, std::memory_order_relaxed);
  }
}

int CMSChannelDataBase::DecodeFrame(const std::uint8_t* data, int size) {
  ScopeLock lock(state_->decodeLock);
  if (!state_->decoderOpen.load(std::memory_order_acquire)) {
    AddNotDecoded();
    return -1;
  }
  if (!state_->threadRuns) {
    int consumed = 0;
    return state_->CountResult(state_->decoder->Decode(data, size, &consumed));
  }
  if (state_->threadFailed.exchange(false, std::memory_order_relaxed)) {
    return -1;
  }
  if (state_->decoder->PutBuffer(data, size) == 0) {
    AddNotDecoded();
    state_->secondWait.store(1, std::memory_order_relaxed);
    return 0;
  }
  state_->secondWait.store(0, std::memory_order_relaxed);
  return 0;
}

void CMSChannelDataBase::SetDisplaySize(const tagSIZE& size) {
  state_->decoder->SetDisplaySize(size, nullptr);
}

std::uint8_t* CMSChannelDataBase::LockDecodedImage(tagSIZE* size) {
  return state_->decoder->LockDecodedImage(size);
}

void CMSChannelDataBase::UnlockDecodedImage() {
  state_->decoder->UnlockDecodedImage();
}

bool CMSChannelDataBase::LockDecodedPlanes(cms::PlanarPicture* picture) {
  return state_->decoder->LockDecodedPlanes(picture);
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
      state_->decoder->SetViewMode(*static_cast<const int*>(value));
      break;
    case DECODER_PARAMETER_DEWARP_POSITION: {
      const auto& position = *static_cast<const cms::stDewarpPosition*>(value);
      state_->decoder->SetDewarpPosition(position.pan, position.tilt);
      break;
    }
    case DECODER_PARAMETER_DEWARP_ZOOM:
      state_->decoder->SetDewarpZoom(*static_cast<const float*>(value));
      break;
    case DECODER_PARAMETER_PLANAR:
      state_->decoder->SetPlanar(*static_cast<const int*>(value) != 0);
      break;
    case DECODER_PARAMETER_FISHEYE:
      state_->decoder->CreateFishEyeManager(*static_cast<const stFisheyeParameter*>(value));
      break;
    case DECODER_PARAMETER_DEWARP_CAMERA:
      state_->decoder->SetDewarpCamera(*static_cast<const cms::stDewarpCamera*>(value));
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
  state_->decodeEnabled.store(1, std::memory_order_relaxed);
  state_->secondWait.store(0, std::memory_order_relaxed);
}

void CMSChannelDataBase::SetVideoWidthAndHeight(unsigned width, unsigned height) {
  state_->width.store(width, std::memory_order_relaxed);
  state_->height.store(height, std::memory_order_relaxed);
}

void CMSChannelDataBase::GetVideoWidthAndHeight(unsigned* width, unsigned* height) const {
  *width = state_->width.load(std::memory_order_relaxed);
  *height = state_->height.load(std::memory_order_relaxed);
}

void CMSChannelDataBase::SetCameraTitle(const std::string& title) {
  ScopeLock lock(state_->titleLock);
  state_->title = title;
}

void CMSChannelDataBase::GetCameraTitle(std::string* title) const {
  ScopeLock lock(state_->titleLock);
  *title = state_->title;
}

void CMSChannelDataBase::SetMetadata(const void* data, unsigned length) {
  const auto* const bytes = static_cast<const std::uint8_t*>(data);
  ScopeLock lock(state_->metadataLock);
  state_->metadata.assign(bytes, bytes + length);
}

unsigned CMSChannelDataBase::GetMetadata(void* destination, unsigned size) const {
  ScopeLock lock(state_->metadataLock);
  const auto count = std::min<std::size_t>(size, state_->metadata.size());
  std::copy_n(state_->metadata.data(), count, static_cast<std::uint8_t*>(destination));
  return static_cast<unsigned>(count);
}

void CMSChannelDataBase::SetLastEventTime(int kind, std::int64_t seconds) {
  if (kind >= 0 && kind < kEventKinds) {
    state_->lastEvent[static_cast<std::size_t>(kind)].store(seconds, std::memory_order_relaxed);
  }
}

int CMSChannelDataBase::IsEventUpToDuration(int kind, std::int64_t now) const {
  if (kind < 0 || kind >= kEventKinds) {
    return 0;
  }
  const auto last =
      state_->lastEvent[static_cast<std::size_t>(kind)].load(std::memory_order_relaxed);
  return now - last >= static_cast<std::int64_t>(GetRecDuration()) ? 1 : 0;
}

int CMSChannelDataBase::CreateFishEyeManager(const stFisheyeParameter& parameter) {
  return state_->decoder->CreateFishEyeManager(parameter);
}

void CMSChannelDataBase::ReleaseFishEyeManager() {
  state_->decoder->ReleaseFishEyeManager();
}

int CMSChannelDataBase::GetDewarpMode() const {
  return state_->decoder->GetDewarpMode();
}

// --- Switches and counters --------------------------------------------------------------------

void CMSChannelDataBase::SetVideoType(cms::CMSCodecID codec) {
  state_->codec.store(codec, std::memory_order_relaxed);
}
void CMSChannelDataBase::SetThreadedDecode(bool threaded) {
  state_->threaded.store(threaded, std::memory_order_relaxed);
}
int CMSChannelDataBase::GetJpegRawDataLen() const {
  return 0;
}
void CMSChannelDataBase::DisableDecode() {
  state_->decodeEnabled.store(0, std::memory_order_relaxed);
}
int CMSChannelDataBase::IsDecodeEnabled() const {
  return state_->decodeEnabled.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::SetFindNextIFrameStatus(int wait) {
  state_->findIFrame.store(wait, std::memory_order_relaxed);
}
int CMSChannelDataBase::IsFindNextIFrame() const {
  return state_->findIFrame.load(std::memory_order_relaxed);
}
bool CMSChannelDataBase::WaitsForKeyFrame() const {
  return IsFindNextIFrame() != 0 || state_->secondWait.load(std::memory_order_relaxed) != 0;
}
unsigned CMSChannelDataBase::GetDecodedCount() const {
  return state_->decoded.load(std::memory_order_relaxed);
}
unsigned CMSChannelDataBase::GetNotDecodedCount() const {
  return state_->notDecoded.load(std::memory_order_relaxed);
}
unsigned CMSChannelDataBase::GetDecodeErrorCount() const {
  return state_->decodeErrors.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::AddNotDecoded() {
  state_->notDecoded.fetch_add(1, std::memory_order_relaxed);
}
std::uint64_t CMSChannelDataBase::FirstPictureTick() const {
  return state_->firstPicture.load(std::memory_order_relaxed);
}
std::uint64_t CMSChannelDataBase::LastPictureTick() const {
  return state_->lastPicture.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::ForgetFirstPicture() {
  state_->firstPicture.store(0, std::memory_order_relaxed);
}
void CMSChannelDataBase::AddSerialNum() {
  state_->serial.fetch_add(1, std::memory_order_relaxed);
}
unsigned CMSChannelDataBase::GetSerialNum() const {
  return state_->serial.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::SetTime(std::int64_t seconds) {
  state_->time.store(seconds, std::memory_order_relaxed);
}
std::int64_t CMSChannelDataBase::GetTime() const {
  return state_->time.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::EnableAudio() {
  state_->audioEnabled.store(1, std::memory_order_relaxed);
}
void CMSChannelDataBase::DisableAudio() {
  state_->audioEnabled.store(0, std::memory_order_relaxed);
}
int CMSChannelDataBase::IsAudioEnable() const {
  return state_->audioEnabled.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::SetAudioOn() {
  state_->audioOn.store(1, std::memory_order_relaxed);
}
void CMSChannelDataBase::SetAudioOff() {
  state_->audioOn.store(0, std::memory_order_relaxed);
}
int CMSChannelDataBase::IsPlayAudio() const {
  return state_->audioOn.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::SetAudioState(int state) {
  state_->audioState.store(state, std::memory_order_relaxed);
}
int CMSChannelDataBase::GetAudioState() const {
  return state_->audioState.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::AddMetadataSerialNum() {
  state_->metadataSerial.fetch_add(1, std::memory_order_relaxed);
}
unsigned CMSChannelDataBase::GetMetadataSerialNum() const {
  return state_->metadataSerial.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::MetadataLockerLock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  state_->metadataLock.Lock();
}
void CMSChannelDataBase::MetadataLockerUnlock() CMS_NO_THREAD_SAFETY_ANALYSIS {
  state_->metadataLock.UnLock();
}
void CMSChannelDataBase::SetRecDuration(unsigned seconds) {
  state_->duration.store(seconds, std::memory_order_relaxed);
}
unsigned CMSChannelDataBase::GetRecDuration() const {
  return state_->duration.load(std::memory_order_relaxed);
}
void CMSChannelDataBase::LockImage() CMS_NO_THREAD_SAFETY_ANALYSIS {
  state_->imageLock.Lock();
}
void CMSChannelDataBase::UnlockImage() CMS_NO_THREAD_SAFETY_ANALYSIS {
  state_->imageLock.UnLock();
}
int CMSChannelDataBase::LockImageTest() CMS_NO_THREAD_SAFETY_ANALYSIS {
  return state_->imageLock.LockTest();
}
