#include "cms/streaming/rtsp_client.h"

#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/rtsp_session.h"
#include "cms/streaming/internal/rtsp_target.h"

CMSRTSPClient::CMSRTSPClient()
    : CMSClientBase(this), target_(std::make_shared<const cms::RTSPTarget>()) {}

CMSRTSPClient::~CMSRTSPClient() {
  OnStopAudioRecorder();
  CMSRTSPClient::CloseStream();
}

int CMSRTSPClient::SetConfig(void* config) {
  if (config == nullptr) {
    return 0;
  }
  ScopeLock lock(lock_);
  if (opened_) {
    FailUse("SetConfig: the stream is open; CloseStream comes first");
    return 0;
  }
  std::string problem;
  auto target = cms::TargetOf(*static_cast<const stRTSPClientConfig*>(config), &problem);
  target_ = std::make_shared<const cms::RTSPTarget>(std::move(target));
  getParameter_ = cms::GetParameter::kUnknown;
  if (!target_->usable) {
    Succeeded({ConnectionFault::kBadAddress, problem});
    return 0;
  }
  siteType_ = target_->config.siteType;
  fpsReport_.SetReportFormat("[LiveRecord]Site=%2d(%s),Stream=%d", target_->config.siteNumber + 1,
                             target_->host.c_str(), target_->config.streamNumber);
  fpsReport_.SetChannel(static_cast<int>(target_->config.channel));
  return 1;
}

// --- Life ---------------------------------------------------------------------------------------

int CMSRTSPClient::OpenStream() {
  ScopeLock lock(lock_);
  paused_ = paused_ && opened_;
  return OpenLocked() ? 1 : 0;
}

bool CMSRTSPClient::OpenLocked() {
  if (!target_->usable) {
    FailUse("OpenStream: SetConfig was not called or has refused the configuration");
    return false;
  }
  if (opened_) {
    FailUse("OpenStream: the stream is open already");
    return false;
  }
  MarkOpening();
  SetFault(ConnectionFault::kNone, "");
  session_ = std::make_shared<Session>(*this, target_, getParameter_);
  {
    ScopeLock lock(sessionLock_);
    shownSession_ = session_;
  }
  // A paused stream that comes back stays in the state that PAUSE leads to, which is that before
  // PLAY (RFC 2326, appendix A.1).
  opened_ = Succeeded(session_->Connect()) && Option() != 0 && Describe() != 0 &&
            SetupVideo() != 0 && (!session_->Stream(false).Present() || SetupAudio() != 0) &&
            (!session_->Talk().Present() || Succeeded(session_->SetUpTalk())) &&
            (paused_ || PlayMedia() != 0);
  if (!opened_) {
    CloseLocked();
    return false;
  }
  MarkOpened();
  SetState(ConnectionState::kOpen);
  return true;
}

int CMSRTSPClient::CloseStream() {
  const cms::CancelGate::Shut shut(OpeningGate());
  StopKeeping();
  ScopeLock lock(lock_);
  CloseLocked();
  paused_ = false;
  return 1;
}

void CMSRTSPClient::CloseLocked() {
  StopDelivery();
  if (session_ != nullptr) {
    TearDown();
    session_->Stop();
    getParameter_ = session_->Dialogue().Known();
    ScopeLock lock(sessionLock_);
    earlier_ = Counts();
    shownSession_.reset();
  }
  session_.reset();
  opened_ = false;
  SetState(ConnectionState::kClosed);
}

int CMSRTSPClient::Play() {
  {
    ScopeLock lock(lock_);
    if (!StartDelivery()) {
      return 0;
    }
  }
  StartKeeping();
  return 1;
}

bool CMSRTSPClient::StartDelivery() {
  if (!opened_) {
    FailUse("Play: the stream is not open; OpenStream comes first");
    return false;
  }
  session_->SetDelivering(true);
  playing_.store(1, std::memory_order_relaxed);
  SetState(paused_ ? ConnectionState::kPaused : ConnectionState::kPlaying);
  return true;
}

int CMSRTSPClient::StopPlay() {
  const cms::CancelGate::Shut shut(OpeningGate());
  StopKeeping();
  ScopeLock lock(lock_);
  StopDelivery();
  SetState(opened_ ? ConnectionState::kOpen : ConnectionState::kClosed);
  return 1;
}

void CMSRTSPClient::StopDelivery() {
  if (session_ != nullptr) {
    session_->SetDelivering(false);
  }
  playing_.store(0, std::memory_order_relaxed);
}

int CMSRTSPClient::Pause() {
  ScopeLock lock(lock_);
  if (!opened_ || !Succeeded(session_->Pause())) {
    return 0;
  }
  paused_ = true;
  if (IsClientPlaying() != 0) {
    SetState(ConnectionState::kPaused);
  }
  return 1;
}

int CMSRTSPClient::Resume() {
  ScopeLock lock(lock_);
  if (!opened_) {  // it plays once it is open again
    return std::exchange(paused_, false) ? 1 : 0;
  }
  if (PlayMedia() == 0) {
    return 0;
  }
  paused_ = false;
  if (IsClientPlaying() != 0) {
    SetState(ConnectionState::kPlaying);
  }
  return 1;
}

int CMSRTSPClient::ChangeRecordFile() {
  return ChangeRecorderFile();
}
int CMSRTSPClient::ChangeRecordPath(const wchar_t* path) {
  return ChangeRecorderPath(path);
}

// --- What the description says ------------------------------------------------------------------

void CMSRTSPClient::TakeDescription() {
  const RTSPStream& audio = session_->Stream(false);
  {
    ScopeLock lock(sessionLock_);
    videoEncoding_ = session_->Stream(true).config.encodingName;
    audioEncoding_ = audio.Present() ? audio.config.encodingName : "";
    talkFormat_ = cms::TalkBackFormat(session_->Talk().config);
  }
  const cms::AudioFormatDescriptor& sound = session_->Frames().Sound();
  tCMSAudioPlayerConfig format{.codecId = static_cast<std::int32_t>(sound.codecId)};
  if (format.codecId != CMS_CODEC_NONE) {
    constexpr std::uint32_t kLongestPacket = 65536;
    format.sampleRate = sound.sampleRate;
    format.channels = sound.channels;
    format.maximumBlockSize = kLongestPacket;
    audioType_.store(format.codecId, std::memory_order_relaxed);
  }
  SetAudioFormat(format);
  if (MustDecode() != 0) {
    InitialChannelCodec();
  } else if (const auto channel = Channel(target_->config.channel)) {
    channel->SetVideoType(VideoCodec());
  }
}

void CMSRTSPClient::SetMustDecode(int decode) {
  ScopeLock lock(lock_);
  const auto channel = Channel(target_->config.channel);
  if (channel != nullptr && decode != 0) {
    InitialChannelCodec();
  }
  CMSClientBase::SetMustDecode(decode);
  if (channel != nullptr && decode == 0) {
    channel->ReleaseCodec();  // behind the switch: a frame that meets it does not open it again
  }
}

CMSCodecID CMSRTSPClient::VideoCodec() const {
  const CMSCodecID codec = cms::CodecOfEncodingName(GetVideoEncoding());
  return cms::VideoTypeOfCodec(codec) != CMS_VIDEO_UNKNOWN ? codec : CMS_CODEC_NONE;
}

void CMSRTSPClient::InitialChannelCodec() {
  const auto channel = Channel(target_->config.channel);
  if (channel == nullptr) {
    return;
  }
  const CMSCodecID codec = VideoCodec();
  channel->SetVideoType(codec);
  if (codec != CMS_CODEC_NONE) {
    channel->InitialCodec(codec);
  }
}

// --- Keeping ------------------------------------------------------------------------------------

bool CMSRTSPClient::OpenForKeeping() {
  ScopeLock lock(lock_);
  return (opened_ || OpenLocked()) && StartDelivery();
}

void CMSRTSPClient::CloseForKeeping() {
  ScopeLock lock(lock_);
  CloseLocked();
}

ConnectionFault CMSRTSPClient::KeepAlive(std::uint64_t now, std::uint64_t* nextInMs) {
  constexpr std::uint64_t kBusyMs = 1'000;
  if (lock_.LockTest() == 0) {  // the client application is talking to the camera
    *nextInMs = kBusyMs;
    return ConnectionFault::kNone;
  }
  const cms::StreamFailure failure =
      session_ != nullptr
          ? session_->Dialogue().KeepAlive(now, nextInMs)
          : cms::StreamFailure{ConnectionFault::kCancelled, "closed by the client application"};
  Succeeded(failure);
  lock_.UnLock();
  return failure.fault;
}

// Every description has video; a camera that only goes on with its sound has died as far as anybody
// is concerned.
cms::StreamCounts CMSRTSPClient::Counts() const {
  ScopeLock lock(sessionLock_);
  cms::StreamCounts counts = earlier_;
  if (shownSession_ != nullptr) {
    counts.packets += shownSession_->Stream(true).subSession.PacketCount();
    for (const bool video : {true, false}) {
      const RTSPSubSession& stream = shownSession_->Stream(video).subSession;
      counts.lost += stream.MissingPacketCount();
      counts.oversize += stream.OversizeFrameCount();
    }
  }
  return counts;
}

// --- Failures -----------------------------------------------------------------------------------

bool CMSRTSPClient::Succeeded(const cms::StreamFailure& failure) {
  if (failure) {
    const std::string where =
        target_->host.empty() ? "" : target_->host + ":" + std::to_string(target_->port) + ": ";
    SetFault(failure.fault, where + failure.text);
  }
  return !failure;
}

// A call that cannot be done now. The reason why there is no stream is worth more, where there is
// one.
void CMSRTSPClient::FailUse(const std::string& what) {
  if (GetConnectionStatus().fault == ConnectionFault::kNone) {
    SetFault(target_->usable ? ConnectionFault::kNone : ConnectionFault::kBadAddress, what);
  }
}

// --- Questions ----------------------------------------------------------------------------------

int CMSRTSPClient::SendAudioData(unsigned char* data, int length) {
  std::shared_ptr<Session> session;
  {
    ScopeLock lock(sessionLock_);
    session = shownSession_;
  }
  return session != nullptr ? session->Talker().Send(data, length) : 0;
}

int CMSRTSPClient::GetTalkFormat(tCMSAudioPlayerConfig* format) const {
  ScopeLock lock(sessionLock_);
  *format = talkFormat_;
  return talkFormat_.codecId != CMS_CODEC_NONE ? 1 : 0;
}

double CMSRTSPClient::GetAudioStreamLossRate() const {
  ScopeLock lock(sessionLock_);
  return shownSession_ != nullptr ? shownSession_->Stream(false).subSession.LossRate() : 0.0;
}

std::string CMSRTSPClient::GetVideoEncoding() const {
  ScopeLock lock(sessionLock_);
  return videoEncoding_;
}

std::string CMSRTSPClient::GetAudioEncoding() const {
  ScopeLock lock(sessionLock_);
  return audioEncoding_;
}
