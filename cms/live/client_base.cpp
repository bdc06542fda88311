#include "cms/live/client_base.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "cms/live/internal/connection_sight.h"
#include "cms/live/internal/keeper.h"
#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_type.h"
#include "cms/recording/site/internal/site_recording.h"
#include "cms/runtime/clock.h"

CMSClientBase::CMSClientBase(cms::KeptStream* stream)
    : keeper_(std::make_unique<cms::Keeper>(stream)),
      recording_(std::make_unique<cms::SiteRecording>([this] {
        const ConnectionStatus status = keeper_->Status();
        return cms::SightOf(status.state, status.fault, rate_.LastVideo());
      })) {}

// A derived client has stopped the keeping in its own destructor: the keeping calls its operations.
CMSClientBase::~CMSClientBase() {
  StopKeeping();
}

int CMSClientBase::OpenStream() {
  return 0;
}
int CMSClientBase::CloseStream() {
  return 0;
}
void CMSClientBase::ConvertMetadataToDRVHeader(void*, unsigned, void*, unsigned) {}
int CMSClientBase::CreateSocket() {
  return 0;
}
int CMSClientBase::DestroySocket() {
  return 0;
}
int CMSClientBase::SendAudioData(unsigned char*, int) {
  return 0;
}

int CMSClientBase::AllocChannelData(unsigned count) {
  Channels channels;
  {
    ScopeLock lock(channelsLock_);
    channels_.swap(channels);
    channelCount_ = count;
  }
  channels.clear();  // without the lock: a decode thread may have to end
  if (count > 0) {
    recordableChannels_ = std::min(count, cms::kChannels);
  }
  try {
    channels.reserve(count);
    for (unsigned i = 0; i < count; ++i) {
      channels.push_back(std::make_shared<CMSChannelDataBase>());
      channels.back()->SetThreadedDecode(threadedDecode_);
      channels.back()->SetRecDuration(GetRecDuration());
    }
  } catch (const std::bad_alloc&) {
    return 0;
  }
  ScopeLock lock(channelsLock_);
  channels_.swap(channels);
  return 1;
}

std::shared_ptr<CMSChannelDataBase> CMSClientBase::Channel(unsigned channel) const {
  ScopeLock lock(channelsLock_);
  return channel < channels_.size() ? channels_[channel] : nullptr;
}

CMSClientBase::Channels CMSClientBase::CopyOfChannels() const {
  ScopeLock lock(channelsLock_);
  return channels_;
}

// --- A frame's way ------------------------------------------------------------------------------

void CMSClientBase::OnGetVideoFrame(void* header, int headerSize, void* data, int size,
                                    unsigned channel, int frameType) {
  videoFrames_.fetch_add(1, std::memory_order_relaxed);
  keyFrames_.fetch_add(frameType == cms::kKeyFrame ? 1 : 0, std::memory_order_relaxed);
  bytes_.fetch_add(static_cast<std::uint64_t>(size), std::memory_order_relaxed);
  const std::uint64_t now = cms::TickMilliseconds();
  rate_.Add(now, true, static_cast<std::uint64_t>(size));
  if (firstFrameTick_.load(std::memory_order_relaxed) == 0) {
    firstFrameTick_.store(now, std::memory_order_relaxed);
  }
  fpsReport_.AddFrameCount(static_cast<unsigned long>(size), 1);
  OnRecordVideoFrame(header, headerSize, data, size, channel);
  if (MustDecode() == 0) {
    AddChannelSerialNum(channel);
    return;
  }
  OnDecodeVideoFrame(data, size, channel, frameType);
}

void CMSClientBase::OnGetAudioFrame(void* header, int headerSize, void* data, int size,
                                    unsigned channel) {
  audioFrames_.fetch_add(1, std::memory_order_relaxed);
  bytes_.fetch_add(static_cast<std::uint64_t>(size), std::memory_order_relaxed);
  rate_.Add(cms::TickMilliseconds(), false, static_cast<std::uint64_t>(size));
  fpsReport_.AddFrameCount(static_cast<unsigned long>(size), 0);
  OnRecordAudioFrame(header, headerSize, data, size, channel);
  OnDecodeAudioFrame(data, size, channel);
}

void CMSClientBase::OnDecodeVideoFrame(void* data, int size, unsigned channel, int frameType) {
  const auto state = Channel(channel);
  if (state == nullptr) {
    return;
  }
  if (state->IsDecodeEnabled() == 0) {
    state->AddNotDecoded();
    return;
  }
  if (state->WaitsForKeyFrame() && frameType != cms::kKeyFrame) {
    state->AddNotDecoded();
    return;
  }
  if (state->DecodeFrame(static_cast<const std::uint8_t*>(data), size) != -1) {
    state->SetFindNextIFrameStatus(0);
    return;
  }
  state->ReInitialCodec();
  if (mustDecode_.load(std::memory_order_relaxed) == 0) {
    state->ReleaseCodec();  // decoding was switched off under this frame
  }
}

// --- Statistics and pictures --------------------------------------------------------------------

int CMSClientBase::GetFrameData(void* buffer, int size) const {
  CMSFrameData data;
  data.videoFrames = videoFrames_.load(std::memory_order_relaxed);
  data.keyFrames = keyFrames_.load(std::memory_order_relaxed);
  data.audioFrames = audioFrames_.load(std::memory_order_relaxed);
  data.bytes = bytes_.load(std::memory_order_relaxed);
  const cms::StreamCounts counts = keeper_->Counts();
  data.lostPackets = counts.lost;
  data.oversizeFrames = counts.oversize;
  data.openMs = openMs_.load(std::memory_order_relaxed);
  const auto start = openingTick_.load(std::memory_order_relaxed);
  const auto since = [start](std::uint64_t tick) {
    // A tick before the start belongs to the opening before; at least 1 ms says "it happened".
    return tick == 0 || tick < start ? 0 : std::max<std::uint32_t>(1, std::uint32_t(tick - start));
  };
  data.firstFrameMs = since(firstFrameTick_.load(std::memory_order_relaxed));
  const std::uint64_t now = cms::TickMilliseconds();
  const auto ago = [now](std::uint64_t tick) {
    const std::uint64_t most = CMSFrameData::kNever - 1;
    return tick == 0 ? CMSFrameData::kNever
                     : static_cast<std::uint32_t>(std::min(now - std::min(tick, now), most));
  };
  data.sinceVideoMs = ago(rate_.LastVideo());
  if (const auto state = Channel(0)) {
    data.firstPictureMs = since(state->FirstPictureTick());
    data.sincePictureMs = ago(state->LastPictureTick());
  }
  data.fps = rate_.Fps(now);
  data.kbps = rate_.Kbps(now);
  const auto count = std::min<std::size_t>(size > 0 ? std::size_t(size) : 0, sizeof data);
  std::memcpy(buffer, &data, count);
  return static_cast<int>(count);
}

double CMSClientBase::GetFps() const {
  return fpsReport_.GetRecentFps();
}
double CMSClientBase::GetAvgFps() const {
  return fpsReport_.GetRecentAvgFps();
}
double CMSClientBase::GetKbps() const {
  return fpsReport_.GetKbps();
}

int CMSClientBase::GetDecodeStatus(unsigned channel, unsigned* decoded, unsigned* notDecoded,
                                   unsigned* errors) const {
  const auto state = Channel(channel);
  if (state == nullptr) {
    return 0;
  }
  if (decoded != nullptr) {
    *decoded = state->GetDecodedCount();
  }
  if (notDecoded != nullptr) {
    *notDecoded = state->GetNotDecodedCount();
  }
  if (errors != nullptr) {
    *errors = state->GetDecodeErrorCount();
  }
  return 1;
}

int CMSClientBase::IsClientPlaying() const {
  return playing_.load(std::memory_order_relaxed);
}

std::uint8_t* CMSClientBase::lockDecodedImage(unsigned channel, tagSIZE* size) {
  const auto state = Channel(channel);
  return state != nullptr ? state->LockDecodedImage(size) : nullptr;
}

void CMSClientBase::unlockDecodedImage(unsigned channel) {
  if (const auto state = Channel(channel)) {
    state->UnlockDecodedImage();
  }
}

void CMSClientBase::SetThreadedDecode(bool threaded) {
  threadedDecode_ = threaded;
  for (const auto& channel : CopyOfChannels()) {
    channel->SetThreadedDecode(threaded);
  }
}

void CMSClientBase::GetDRVTypeHeader(unsigned char* tag) {
  // By the number of the site type: the third byte for H.264, MJPEG and MPEG-4; 0: there is no tag.
  struct Family {
    int siteType;
    char letters[3];
  };
  constexpr Family kFamilies[] = {{1, {'V', 'V', 'V'}},   {2, {'W', 'W', 'W'}},
                                  {3, {'\0', 'X', 'X'}},  {5, {'\0', 'V', 'V'}},
                                  {9, {'V', '\0', '\0'}}, {10, {'V', 'V', 'V'}}};
  constexpr char kCodecLetters[] = {'V', 'U', 'T'};
  const int video = GetVideoType(0);
  const auto* const family =
      std::find_if(std::begin(kFamilies), std::end(kFamilies),
                   [&](const Family& each) { return each.siteType == siteType_; });
  if (family == std::end(kFamilies) || video < CMS_VIDEO_H264 || video > CMS_VIDEO_MPEG4) {
    return;
  }
  const int codec = video - CMS_VIDEO_H264;
  if (family->letters[codec] != '\0') {
    tag[0] = 0;
    tag[1] = 0;
    tag[2] = static_cast<unsigned char>(family->letters[codec]);
    tag[3] = static_cast<unsigned char>(kCodecLetters[codec]);
  }
}

void CMSClientBase::MarkOpening() {
  openingTick_.store(cms::TickMilliseconds(), std::memory_order_relaxed);
  firstFrameTick_.store(0, std::memory_order_relaxed);
  rate_.Restart();
  for (const auto& channel : CopyOfChannels()) {
    channel->ForgetFirstPicture();
  }
  SetState(ConnectionState::kOpening);
}

void CMSClientBase::MarkOpened() {
  openMs_.store(static_cast<std::uint32_t>(cms::TickMilliseconds() -
                                           openingTick_.load(std::memory_order_relaxed)),
                std::memory_order_relaxed);
}

// --- Keeping ------------------------------------------------------------------------------------

void CMSClientBase::SetReconnectPolicy(const ReconnectPolicy& policy) {
  keeper_->SetPolicy(policy);
}
ConnectionStatus CMSClientBase::GetConnectionStatus() const {
  return keeper_->Status();
}
void CMSClientBase::SetFault(ConnectionFault fault, std::string detail) {
  keeper_->SetFault(fault, std::move(detail));
}
void CMSClientBase::SetState(ConnectionState state) {
  keeper_->SetState(state);
}

int CMSClientBase::KeepOpen() {
  return keeper_->Start(false) ? 1 : 0;
}
void CMSClientBase::StartKeeping() {
  if (keeper_->Policy().enabled) {
    keeper_->Start(true);
  }
}
void CMSClientBase::StopKeeping() {
  keeper_->Stop();
}
void CMSClientBase::PokeKeeping() {
  keeper_->Poke();
}
cms::CancelGate& CMSClientBase::OpeningGate() {
  return keeper_->Gate();
}
