#include "cms/streaming/rtsp_client.h"

#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/rtsp_client_state.h"
#include "cms/streaming/internal/rtsp_session.h"
#include "cms/streaming/internal/rtsp_target.h"

CMSRTSPClient::CMSRTSPClient()
    : CMSClientBase(this), life_(std::make_unique<Life>()), shown_(std::make_unique<Shown>()) {}

CMSRTSPClient::~CMSRTSPClient() {
  OnStopAudioRecorder();
  CMSRTSPClient::CloseStream();
}

int CMSRTSPClient::SetConfig(void* config) {
  if (config == nullptr) {
    return 0;
  }
  ScopeLock lock(lock_);
  if (life_->opened) {
    FailUse("SetConfig: the stream is open; CloseStream comes first");
    return 0;
  }
  std::string problem;
  auto target = cms::TargetOf(*static_cast<const cms::stRTSPClientConfig*>(config), &problem);
  life_->target = std::make_shared<const cms::RTSPTarget>(std::move(target));
  life_->getParameter = cms::GetParameter::kUnknown;
  SetCameraAddress(life_->target->url);
  if (!life_->target->usable) {
    Succeeded({cms::ConnectionFault::kBadAddress, problem});
    return 0;
  }
  SetSiteType(life_->target->config.siteType);
  FpsReport().SetReportFormat("[LiveRecord]Site=%2d(%s),Stream=%d",
                              life_->target->config.siteNumber + 1, life_->target->host.c_str(),
                              life_->target->config.streamNumber);
  FpsReport().SetChannel(static_cast<int>(life_->target->config.channel));
  return 1;
}

// --- Life ---------------------------------------------------------------------------------------

int CMSRTSPClient::OpenStream() {
  ScopeLock lock(lock_);
  life_->paused = life_->paused && life_->opened;
  return OpenLocked(false) ? 1 : 0;
}

// `delivers`: from the camera's first packet on, which may come with the answer to PLAY.
bool CMSRTSPClient::OpenLocked(bool delivers) {
  if (!life_->target->usable) {
    FailUse("OpenStream: SetConfig was not called or has refused the configuration");
    return false;
  }
  if (life_->opened) {
    FailUse("OpenStream: the stream is open already");
    return false;
  }
  MarkOpening();
  bool open = OpenOnce(delivers);
  const bool refused =
      !open && GetConnectionStatus().fault == cms::ConnectionFault::kTransportRefused;
  if (refused && life_->target->MayChangeTransport()) {
    // The camera has no UDP, or after silence over UDP no TCP.
    const bool changed = life_->target->config.transport != life_->target->askedTransport;
    ChangeTransport(changed ? life_->target->askedTransport : cms::kRtspTransportInterleaved);
    open = OpenOnce(delivers);
  }
  if (!open) {
    return false;
  }
  const bool asked = life_->target->askedTransport == cms::kRtspTransportInterleaved;
  if (!asked && life_->session->Transport() == cms::kRtspTransportInterleaved) {
    SetFault(cms::ConnectionFault::kNone,
             life_->target->HostAndPort() +
                 ": nothing comes over UDP, so the stream comes inside the RTSP connection");
  }
  MarkOpened();
  SetState(cms::ConnectionState::kOpen);
  return true;
}

void CMSRTSPClient::ChangeTransport(int transport) {
  cms::RTSPTarget target = *life_->target;
  target.config.transport = transport;
  life_->target = std::make_shared<const cms::RTSPTarget>(std::move(target));
}

bool CMSRTSPClient::OpenOnce(bool delivers) {
  SetState(cms::ConnectionState::kOpening);
  SetFault(cms::ConnectionFault::kNone, "");
  life_->session = std::make_shared<Session>(*this, life_->target, life_->getParameter);
  {
    ScopeLock lock(shown_->lock);
    shown_->session = life_->session;
  }
  // A paused stream that comes back stays in the state that PAUSE leads to, which is that before
  // PLAY (RFC 2326, appendix A.1).
  const bool ready = Succeeded(life_->session->Connect()) && Option() != 0 && Describe() != 0 &&
                     (!life_->session->HasVideo() || SetupVideo() != 0) &&
                     (!life_->session->Stream(false).Present() || SetupAudio() != 0) &&
                     (!life_->session->Talk().Present() || Succeeded(life_->session->SetUpTalk()));
  if (ready && delivers) {
    life_->session->SetDelivering(true);
  }
  life_->opened = ready && (life_->paused || PlayMedia() != 0);
  if (!life_->opened) {
    CloseLocked();
  }
  return life_->opened;
}

int CMSRTSPClient::CloseStream() {
  const cms::CancelGate::Shut shut(OpeningGate());
  StopKeeping();
  ScopeLock lock(lock_);
  CloseLocked();
  life_->paused = false;
  return 1;
}

void CMSRTSPClient::CloseLocked() {
  StopDelivery();
  if (life_->session != nullptr) {
    TearDown();
    life_->session->Stop();
    life_->getParameter = life_->session->Dialogue().Known();
    ScopeLock lock(shown_->lock);
    shown_->earlier = Counts();
    shown_->transport = life_->session->Transport();
    shown_->session.reset();
  }
  life_->session.reset();
  life_->opened = false;
  SetState(cms::ConnectionState::kClosed);
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
  if (!life_->opened) {
    FailUse("Play: the stream is not open; OpenStream comes first");
    return false;
  }
  life_->session->SetDelivering(true);
  SetPlaying(true);
  SetState(life_->paused ? cms::ConnectionState::kPaused : cms::ConnectionState::kPlaying);
  return true;
}

int CMSRTSPClient::StopPlay() {
  const cms::CancelGate::Shut shut(OpeningGate());
  StopKeeping();
  ScopeLock lock(lock_);
  StopDelivery();
  SetState(life_->opened ? cms::ConnectionState::kOpen : cms::ConnectionState::kClosed);
  return 1;
}

void CMSRTSPClient::StopDelivery() {
  if (life_->session != nullptr) {
    life_->session->SetDelivering(false);
  }
  SetPlaying(false);
}

int CMSRTSPClient::Pause() {
  ScopeLock lock(lock_);
  if (!life_->opened || !Succeeded(life_->session->Pause())) {
    return 0;
  }
  life_->paused = true;
  if (IsClientPlaying() != 0) {
    SetState(cms::ConnectionState::kPaused);
  }
  return 1;
}

int CMSRTSPClient::Resume() {
  ScopeLock lock(lock_);
  if (!life_->opened) {  // it plays once it is open again
    return std::exchange(life_->paused, false) ? 1 : 0;
  }
  if (PlayMedia() == 0) {
    return 0;
  }
  life_->paused = false;
  if (IsClientPlaying() != 0) {
    SetState(cms::ConnectionState::kPlaying);
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
  const RTSPStream& audio = life_->session->Stream(false);
  {
    ScopeLock lock(shown_->lock);
    shown_->videoEncoding = life_->session->Stream(true).config.encodingName;
    shown_->audioEncoding = audio.Present() ? audio.config.encodingName : "";
    shown_->talkFormat = cms::TalkBackFormat(life_->session->Talk().config);
  }
  SetSoundProblem(life_->session->Frames().Sound().problem);
  const cms::AudioFormatDescriptor& sound = life_->session->Frames().Sound().descriptor;
  tCMSAudioPlayerConfig format{.codecId = static_cast<std::int32_t>(sound.codecId)};
  if (format.codecId != cms::CMS_CODEC_NONE) {
    constexpr std::uint32_t kLongestPacket = 65536;
    format.sampleRate = sound.sampleRate;
    format.channels = sound.channels;
    format.maximumBlockSize = kLongestPacket;
    ReportAudioType(format.codecId);
  }
  SetAudioFormat(format);
  if (MustDecode() != 0) {
    InitialChannelCodec();
  } else if (const auto channel = Channel(life_->target->config.channel)) {
    channel->SetVideoType(VideoCodec());
  }
}

void CMSRTSPClient::SetMustDecode(int decode) {
  ScopeLock lock(lock_);
  const auto channel = Channel(life_->target->config.channel);
  if (channel != nullptr && decode != 0) {
    InitialChannelCodec();
  }
  CMSClientBase::SetMustDecode(decode);
  if (channel != nullptr && decode == 0) {
    channel->ReleaseCodec();  // behind the switch: a frame that meets it does not open it again
  }
}

cms::CMSCodecID CMSRTSPClient::VideoCodec() const {
  const cms::CMSCodecID codec = cms::CodecOfEncodingName(GetVideoEncoding());
  return cms::VideoTypeOfCodec(codec) != cms::CMS_VIDEO_UNKNOWN ? codec : cms::CMS_CODEC_NONE;
}

void CMSRTSPClient::InitialChannelCodec() {
  const auto channel = Channel(life_->target->config.channel);
  if (channel == nullptr) {
    return;
  }
  const cms::CMSCodecID codec = VideoCodec();
  channel->SetVideoType(codec);
  const bool decodes = codec != cms::CMS_CODEC_MPEG4 || life_->target->config.todaysCameras;
  if (codec != cms::CMS_CODEC_NONE && decodes) {
    channel->InitialCodec(codec);
  }
}

// --- Keeping ------------------------------------------------------------------------------------

bool CMSRTSPClient::OpenForKeeping() {
  ScopeLock lock(lock_);
  return (life_->opened || OpenLocked(true)) && StartDelivery();
}

void CMSRTSPClient::CloseForKeeping() {
  ScopeLock lock(lock_);
  CloseLocked();
}

cms::ConnectionFault CMSRTSPClient::KeepAlive(std::uint64_t now, std::uint64_t* nextInMs) {
  constexpr std::uint64_t kBusyMs = 1'000;
  if (lock_.LockTest() == 0) {  // the client application is talking to the camera
    *nextInMs = kBusyMs;
    return cms::ConnectionFault::kNone;
  }
  cms::StreamFailure failure = life_->session != nullptr
                                   ? life_->session->Dialogue().KeepAlive(now, nextInMs)
                                   : cms::StreamFailure{cms::ConnectionFault::kCancelled,
                                                        "closed by the client application"};
  if (!failure && !life_->paused && life_->target->MayChangeTransport()) {
    failure = life_->session->WatchDatagrams(now, nextInMs);
    if (failure) {
      ChangeTransport(cms::kRtspTransportInterleaved);
    }
  }
  Succeeded(failure);
  lock_.UnLock();
  return failure.fault;
}

// A camera whose description has video and that only goes on with its sound has died as far as
// anybody is concerned.
cms::StreamCounts CMSRTSPClient::Counts() const {
  ScopeLock lock(shown_->lock);
  cms::StreamCounts counts = shown_->earlier;
  counts.frames = shown_->videoSequence.load(std::memory_order_relaxed);
  if (shown_->session != nullptr) {
    const bool hasVideo = shown_->session->HasVideo();
    counts.packets += shown_->session->Stream(hasVideo).subSession.PacketCount();
    counts.frames = hasVideo ? counts.frames : std::nullopt;
    counts.soundAlone = !hasVideo;
    for (const bool video : {true, false}) {
      const RTSPSubSession& stream = shown_->session->Stream(video).subSession;
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
        life_->target->host.empty() ? "" : life_->target->HostAndPort() + ": ";
    SetFault(failure.fault, where + failure.text);
  }
  return !failure;
}

// A call that cannot be done now. The reason why there is no stream is worth more, where there is
// one.
void CMSRTSPClient::FailUse(const std::string& what) {
  if (GetConnectionStatus().fault == cms::ConnectionFault::kNone) {
    SetFault(
        life_->target->usable ? cms::ConnectionFault::kNone : cms::ConnectionFault::kBadAddress,
        what);
  }
}

// --- Questions ----------------------------------------------------------------------------------

int CMSRTSPClient::SendAudioData(unsigned char* data, int length) {
  std::shared_ptr<Session> session;
  {
    ScopeLock lock(shown_->lock);
    session = shown_->session;
  }
  return session != nullptr ? session->Talker().Send(data, length) : 0;
}

int CMSRTSPClient::GetTalkFormat(tCMSAudioPlayerConfig* format) const {
  ScopeLock lock(shown_->lock);
  *format = shown_->talkFormat;
  return shown_->talkFormat.codecId != cms::CMS_CODEC_NONE ? 1 : 0;
}

double CMSRTSPClient::GetAudioStreamLossRate() const {
  ScopeLock lock(shown_->lock);
  return shown_->session != nullptr ? shown_->session->Stream(false).subSession.LossRate() : 0.0;
}

int CMSRTSPClient::GetTransport() const {
  ScopeLock lock(shown_->lock);
  return shown_->session != nullptr ? shown_->session->Transport() : shown_->transport;
}

std::string CMSRTSPClient::GetVideoEncoding() const {
  ScopeLock lock(shown_->lock);
  return shown_->videoEncoding;
}

std::string CMSRTSPClient::GetAudioEncoding() const {
  ScopeLock lock(shown_->lock);
  return shown_->audioEncoding;
}
