#include "cms/live/client_base.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "cms/live/internal/client_state.h"
#include "cms/live/internal/connection_sight.h"
#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_type.h"
#include "cms/recording/channel_set.h"
#include "cms/runtime/clock.h"

CMSClientBase::State::State(cms::KeptStream* stream)
    : keeper(stream), recording([this] {
        const cms::ConnectionStatus status = keeper.Status();
        cms::ConnectionSight sight = cms::SightOf(status.state, status.fault, rate.LastVideo());
        sight.soundAlone = keeper.IsSoundAlone();
        return sight;
      }) {}

CMSClientBase::CMSClientBase(cms::KeptStream* stream) : state_(std::make_unique<State>(stream)) {}

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
  State::Channels channels;
  stFisheyeParameter fisheye;
  {
    ScopeLock lock(state_->channelsLock);
    state_->channels.swap(channels);
    state_->channelCount = count;
    fisheye = state_->fisheye;
  }
  channels.clear();  // without the lock: a decode thread may have to end
  if (count > 0) {
    state_->recordableChannels = std::min(count, cms::kChannels);
  }
  try {
    channels.reserve(count);
    for (unsigned i = 0; i < count; ++i) {
      channels.push_back(std::make_shared<CMSChannelDataBase>());
      channels.back()->SetThreadedDecode(state_->threadedDecode);
      channels.back()->SetRecDuration(GetRecDuration());
      channels.back()->CreateFishEyeManager(fisheye);
    }
  } catch (const std::bad_alloc&) {
    return 0;
  }
  ScopeLock lock(state_->channelsLock);
  state_->channels.swap(channels);
  return 1;
}

std::shared_ptr<CMSChannelDataBase> CMSClientBase::Channel(unsigned channel) const {
  ScopeLock lock(state_->channelsLock);
  return channel < state_->channels.size() ? state_->channels[channel] : nullptr;
}

CMSClientBase::State::Channels CMSClientBase::State::CopyOfChannels() const {
  ScopeLock lock(channelsLock);
  return channels;
}

// --- A frame's way ------------------------------------------------------------------------------

void CMSClientBase::OnGetVideoFrame(void* header, int headerSize, void* data, int size,
                                    unsigned channel, int frameType) {
  state_->videoFrames.fetch_add(1, std::memory_order_relaxed);
  state_->keyFrames.fetch_add(frameType == cms::kKeyFrame ? 1 : 0, std::memory_order_relaxed);
  state_->bytes.fetch_add(static_cast<std::uint64_t>(size), std::memory_order_relaxed);
  const std::uint64_t now = cms::TickMilliseconds();
  state_->rate.Add(now, true, static_cast<std::uint64_t>(size));
  if (state_->firstFrameTick.load(std::memory_order_relaxed) == 0) {
    state_->firstFrameTick.store(now, std::memory_order_relaxed);
  }
  state_->fpsReport.AddFrameCount(static_cast<unsigned long>(size), 1);
  state_->lastTimeUs.store(state_->moment.timeUs, std::memory_order_relaxed);
  state_->lastCameraUs.store(state_->moment.cameraUs, std::memory_order_relaxed);
  OnRecordVideoFrame(header, headerSize, data, size, channel);
  if (MustDecode() == 0) {
    AddChannelSerialNum(channel);
    return;
  }
  OnDecodeVideoFrame(data, size, channel, frameType);
}

void CMSClientBase::OnGetAudioFrame(void* header, int headerSize, void* data, int size,
                                    unsigned channel) {
  state_->audioFrames.fetch_add(1, std::memory_order_relaxed);
  state_->bytes.fetch_add(static_cast<std::uint64_t>(size), std::memory_order_relaxed);
  state_->rate.Add(cms::TickMilliseconds(), false, static_cast<std::uint64_t>(size));
  state_->fpsReport.AddFrameCount(static_cast<unsigned long>(size), 0);
  OnRecordAudioFrame(header, headerSize, data, size, channel);
  OnDecodeAudioFrame(data, size, channel);
}

void CMSClientBase::NoteMoment(const cms::FrameMoment& moment) {
  state_->moment = moment;
}
const cms::FrameMoment& CMSClientBase::GetFrameMoment() const {
  return state_->moment;
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
  if (state_->mustDecode.load(std::memory_order_relaxed) == 0) {
    state->ReleaseCodec();  // decoding was switched off under this frame
  }
}

// --- Statistics and pictures --------------------------------------------------------------------

int CMSClientBase::GetFrameData(void* buffer, int size) const {
  cms::CMSFrameData data;
  data.videoFrames = state_->videoFrames.load(std::memory_order_relaxed);
  data.keyFrames = state_->keyFrames.load(std::memory_order_relaxed);
  data.audioFrames = state_->audioFrames.load(std::memory_order_relaxed);
  data.bytes = state_->bytes.load(std::memory_order_relaxed);
  const cms::StreamCounts counts = state_->keeper.Counts();
  data.lostPackets = counts.lost;
  data.oversizeFrames = counts.oversize;
  data.openMs = state_->openMs.load(std::memory_order_relaxed);
  const auto start = state_->openingTick.load(std::memory_order_relaxed);
  const auto since = [start](std::uint64_t tick) {
    // A tick before the start belongs to the opening before; at least 1 ms says "it happened".
    return tick == 0 || tick < start ? 0 : std::max<std::uint32_t>(1, std::uint32_t(tick - start));
  };
  data.firstFrameMs = since(state_->firstFrameTick.load(std::memory_order_relaxed));
  const std::uint64_t now = cms::TickMilliseconds();
  const auto ago = [now](std::uint64_t tick) {
    const std::uint64_t most = cms::CMSFrameData::kNever - 1;
    return tick == 0 ? cms::CMSFrameData::kNever
                     : static_cast<std::uint32_t>(std::min(now - std::min(tick, now), most));
  };
  data.sinceVideoMs = ago(state_->rate.LastVideo());
  if (const auto state = Channel(0)) {
    data.firstPictureMs = since(state->FirstPictureTick());
    data.sincePictureMs = ago(state->LastPictureTick());
  }
  data.fps = state_->rate.Fps(now);
  data.kbps = state_->rate.Kbps(now);
  data.timeUs = state_->lastTimeUs.load(std::memory_order_relaxed);
  data.cameraUs = state_->lastCameraUs.load(std::memory_order_relaxed);
  const auto count = std::min<std::size_t>(size > 0 ? std::size_t(size) : 0, sizeof data);
  std::memcpy(buffer, &data, count);
  return static_cast<int>(count);
}

CMSFpsReport& CMSClientBase::FpsReport() {
  return state_->fpsReport;
}
double CMSClientBase::GetFps() const {
  return state_->fpsReport.GetRecentFps();
}
double CMSClientBase::GetAvgFps() const {
  return state_->fpsReport.GetRecentAvgFps();
}
double CMSClientBase::GetKbps() const {
  return state_->fpsReport.GetKbps();
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
  return state_->playing.load(std::memory_order_relaxed);
}

void CMSClientBase::SetPlaying(bool playing) {
  state_->playing.store(playing ? 1 : 0, std::memory_order_relaxed);
}

std::uint8_t* CMSClientBase::lockDecodedImage(unsigned channel, tagSIZE* size) {
  const auto state = Channel(channel);
  return state != nullptr ? state->LockDecodedImage(size) : nullptr;
}

bool CMSClientBase::LockDecodedPlanes(unsigned channel, cms::PlanarPicture* picture) {
  const auto state = Channel(channel);
  return state != nullptr && state->LockDecodedPlanes(picture);
}

void CMSClientBase::unlockDecodedImage(unsigned channel) {
  if (const auto state = Channel(channel)) {
    state->UnlockDecodedImage();
  }
}

void CMSClientBase::SetThreadedDecode(bool threaded) {
  state_->threadedDecode = threaded;
  for (const auto& channel : state_->CopyOfChannels()) {
    channel->SetThreadedDecode(threaded);
  }
}

void CMSClientBase::SetSiteType(int siteType) {
  state_->siteType = siteType;
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
                   [&](const Family& each) { return each.siteType == state_->siteType; });
  if (family == std::end(kFamilies) || video < cms::CMS_VIDEO_H264 ||
      video > cms::CMS_VIDEO_MPEG4) {
    return;
  }
  const int codec = video - cms::CMS_VIDEO_H264;
  if (family->letters[codec] != '\0') {
    tag[0] = 0;
    tag[1] = 0;
    tag[2] = static_cast<unsigned char>(family->letters[codec]);
    tag[3] = static_cast<unsigned char>(kCodecLetters[codec]);
  }
}

void CMSClientBase::MarkOpening() {
  state_->openingTick.store(cms::TickMilliseconds(), std::memory_order_relaxed);
  state_->firstFrameTick.store(0, std::memory_order_relaxed);
  state_->rate.Restart();
  for (const auto& channel : state_->CopyOfChannels()) {
    channel->ForgetFirstPicture();
  }
  SetState(cms::ConnectionState::kOpening);
}

void CMSClientBase::MarkOpened() {
  state_->openMs.store(
      static_cast<std::uint32_t>(cms::TickMilliseconds() -
                                 state_->openingTick.load(std::memory_order_relaxed)),
      std::memory_order_relaxed);
}

// --- Keeping ------------------------------------------------------------------------------------

void CMSClientBase::SetReconnectPolicy(const cms::ReconnectPolicy& policy) {
  state_->keeper.SetPolicy(policy);
}
cms::ConnectionStatus CMSClientBase::GetConnectionStatus() const {
  return state_->keeper.Status();
}
void CMSClientBase::SetFault(cms::ConnectionFault fault, std::string detail) {
  state_->keeper.SetFault(fault, std::move(detail));
}
void CMSClientBase::SetCameraAddress(std::string address) {
  state_->keeper.SetAddress(std::move(address));
}
void CMSClientBase::SetSoundProblem(std::string problem) {
  state_->keeper.SetSoundProblem(std::move(problem));
}
void CMSClientBase::SetState(cms::ConnectionState state) {
  state_->keeper.SetState(state);
}

int CMSClientBase::KeepOpen() {
  return state_->keeper.Start(false) ? 1 : 0;
}
void CMSClientBase::StartKeeping() {
  if (state_->keeper.Policy().enabled) {
    state_->keeper.Start(true);
  }
}
void CMSClientBase::StopKeeping() {
  state_->keeper.Stop();
}
void CMSClientBase::PokeKeeping() {
  state_->keeper.Poke();
}
cms::CancelGate& CMSClientBase::OpeningGate() {
  return state_->keeper.Gate();
}
