#include "cms/streaming/rtsp_client.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "cms/live/media/frame_header.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/picture_size.h"
#include "cms/streaming/internal/rtsp_session.h"
#include "cms/streaming/rtsp_url.h"

CMSRTSPClient::CMSRTSPClient() : CMSClientBase(this) {}

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
    return FailUse("SetConfig: the stream is open; CloseStream comes first");
  }
  configured_ = false;
  getParameterWorks_ = false;
  getParameterEnds_ = false;
  config_ = *static_cast<const stRTSPClientConfig*>(config);
  address_ = config_.address;
  port_ = config_.port;
  host_ = config_.address != 0 ? cms::IPv4Text(config_.address) : "";
  if (config_.kind == kSiteKindUrl) {
    std::string why;
    const auto url = cms::ParseCameraUrl(config_.path, &why);
    if (!url || url->scheme != "rtsp") {
      host_.clear();  // what is wrong is the text, not a place
      return Fail(ConnectionFault::kBadAddress,
                  "not an RTSP URL of the form rtsp://[user:password@]host[:port]/path: " +
                      (url ? url->scheme + ":// is not supported" +
                                 (url->scheme == "rtsps" ? " (RTSP over TLS)" : "")
                           : why));
    }
    requestUrl_ = url->plain;
    if (config_.user.empty() && config_.password.empty()) {
      config_.user = url->user;
      config_.password = url->password;
    }
    if (config_.address == 0) {
      host_ = url->host;
      port_ = url->port;
    }
  } else {
    requestUrl_ = "rtsp://" + host_ + config_.path;
  }
  haveCredentials_ = !config_.user.empty();
  siteType_ = config_.siteType;
  fpsReport_.SetReportFormat("[LiveRecord]Site=%2d(%s),Stream=%d", config_.siteNumber + 1,
                             host_.c_str(), config_.streamNumber);
  fpsReport_.SetChannel(static_cast<int>(config_.channel));
  configured_ = true;
  return 1;
}

// --- Life ---------------------------------------------------------------------------------------

int CMSRTSPClient::OpenStream() {
  ScopeLock lock(lock_);
  paused_ = paused_ && opened_;
  return OpenLocked();
}

int CMSRTSPClient::OpenLocked() {
  if (!configured_) {
    return FailUse("OpenStream: SetConfig was not called or has refused the configuration");
  }
  if (opened_) {
    return FailUse("OpenStream: the stream is open already");
  }
  MarkOpening();
  SetFault(ConnectionFault::kNone, "");
  opened_ = Negotiate() != 0;
  if (!opened_) {
    CloseLocked();
    return 0;
  }
  MarkOpened();
  SetState(ConnectionState::kOpen);
  return 1;
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
  // The camera has a session from the first SETUP on, also when the opening fails later.
  if (session_ != nullptr && !sessionId_.empty()) {
    TearDown();
    sessionId_.clear();
  }
  opened_ = false;
  if (session_ != nullptr) {
    session_->Stop();
    std::shared_ptr<Session> ended;  // destroyed without the lock held
    ScopeLock lock(sessionLock_);
    earlier_ = Counts();
    ended.swap(session_);
  }
  SetState(ConnectionState::kClosed);
}

int CMSRTSPClient::Play() {
  {
    ScopeLock lock(lock_);
    if (StartDelivery() == 0) {
      return 0;
    }
  }
  StartKeeping();
  return 1;
}

int CMSRTSPClient::StartDelivery() {
  if (!opened_) {
    return FailUse("Play: the stream is not open; OpenStream comes first");
  }
  session_->Stream(true).subSession.Play();
  session_->Stream(false).subSession.Play();
  playing_.store(1, std::memory_order_relaxed);
  SetState(paused_ ? ConnectionState::kPaused : ConnectionState::kPlaying);
  return 1;
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
    session_->Stream(true).subSession.StopPlay();
    session_->Stream(false).subSession.StopPlay();
  }
  playing_.store(0, std::memory_order_relaxed);
}

int CMSRTSPClient::ChangeRecordFile() {
  return ChangeRecorderFile();
}
int CMSRTSPClient::ChangeRecordPath(const wchar_t* path) {
  return ChangeRecorderPath(path);
}

void CMSRTSPClient::SetMustDecode(int decode) {
  ScopeLock lock(lock_);
  const auto channel = Channel(config_.channel);
  if (channel != nullptr && decode != 0) {
    InitialChannelCodec();
  }
  CMSClientBase::SetMustDecode(decode);
  if (channel != nullptr && decode == 0) {
    channel->ReleaseCodec();  // behind the switch: a frame that meets it does not open it again
  }
}

CMSCodecID CMSRTSPClient::VideoCodec() const {
  const std::string encoding = GetVideoEncoding();
  if (encoding == "H264") {
    return CMS_CODEC_H264;
  }
  if (encoding == "JPEG") {
    return CMS_CODEC_MJPEG;
  }
  return encoding == "MP4V-ES" ? CMS_CODEC_MPEG4 : CMS_CODEC_NONE;
}

void CMSRTSPClient::InitialChannelCodec() {
  const auto channel = Channel(config_.channel);
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
  return (opened_ || OpenLocked() != 0) && StartDelivery() != 0;
}

void CMSRTSPClient::CloseForKeeping() {
  ScopeLock lock(lock_);
  CloseLocked();
}

// Every description has video; a camera that only goes on with its sound has died as far as anybody
// is concerned.
cms::StreamCounts CMSRTSPClient::Counts() const {
  ScopeLock lock(sessionLock_);
  cms::StreamCounts counts = earlier_;
  if (session_ != nullptr) {
    counts.packets += session_->Stream(true).subSession.PacketCount();
    for (const bool video : {true, false}) {
      const RTSPSubSession& stream = session_->Stream(video).subSession;
      counts.lost += stream.MissingPacketCount();
      counts.oversize += stream.OversizeFrameCount();
    }
  }
  return counts;
}

int CMSRTSPClient::SendAudioData(unsigned char* data, int length) {
  std::shared_ptr<Session> session;
  {
    ScopeLock lock(sessionLock_);
    session = session_;
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
  return session_ != nullptr ? session_->Stream(false).subSession.LossRate() : 0.0;
}

std::string CMSRTSPClient::GetVideoEncoding() const {
  ScopeLock lock(sessionLock_);
  return videoEncoding_;
}

std::string CMSRTSPClient::GetAudioEncoding() const {
  ScopeLock lock(sessionLock_);
  return audioEncoding_;
}

// --- Frames -------------------------------------------------------------------------------------

void CMSRTSPClient::OnVideo(void* context, unsigned char* frameBuffer, int, unsigned char* payload,
                            int length, int frameType) {
  static_cast<CMSRTSPClient*>(context)->HandVideo(frameBuffer, payload, length, frameType);
}

void CMSRTSPClient::OnAudio(void* context, unsigned char* frameBuffer, int, unsigned char* payload,
                            int length, int) {
  static_cast<CMSRTSPClient*>(context)->HandAudio(frameBuffer, payload, length);
}

void CMSRTSPClient::HandVideo(unsigned char* header, unsigned char* payload, int length,
                              int frameType) {
  const auto channel = Channel(config_.channel);
  cms::VideoFrameInfo info;
  info.payloadSize = static_cast<std::uint32_t>(length);
  info.hostSeconds = cms::WallSeconds();
  info.clockOffset = config_.clockOffsetSeconds;
  info.streamNumber = static_cast<unsigned>(config_.streamNumber);
  info.announcedOtherRate = otherFrameRate_;
  info.frameRate = announcedFrameRate_ > 0 ? announcedFrameRate_ : fpsReport_.GetRecentFps();
  info.frameType = frameType;
  info.videoType = channel != nullptr ? channel->GetVideoType() : 0;
  info.sequence = ++videoSequence_;
  const std::span<std::uint8_t, cms::kVideoHeaderRoom> area(header, cms::kVideoHeaderRoom);
  cms::BuildVideoFrameHeader(area, info);

  RTPProcesserBase* const processer = receiving_->Stream(true).subSession.Processer();
  if (processer->GotAMetadata() != 0) {
    unsigned char metadata[RTPProcesserBase::kMaxMetadata];
    void* destination = metadata;
    unsigned int metadataLength = 0;
    processer->GetMetadata(&destination, &metadataLength);
    ConvertMetadataToDRVHeader(metadata, metadataLength, header, cms::kVideoHeaderRoom);
    processer->ResetMetadada();
  }
  if (channel != nullptr) {
    channel->SetTime(info.hostSeconds + info.clockOffset);
    if (frameType == 1) {
      NotePictureSize(*channel, payload, length);
    }
  }
  OnGetVideoFrame(header, cms::kVideoHeaderRoom, payload, length, config_.channel, frameType);
}

void CMSRTSPClient::NotePictureSize(CMSChannelDataBase& channel, const unsigned char* payload,
                                    int length) {
  const cms::PictureSize size =
      cms::AnnouncedSize(channel.GetVideoType(), {payload, static_cast<std::size_t>(length)})
          .value_or(cms::PictureSize{describedWidth_, describedHeight_});
  if (size.width > 0) {
    channel.SetVideoWidthAndHeight(static_cast<unsigned>(size.width),
                                   static_cast<unsigned>(size.height));
  }
}

void CMSRTSPClient::HandAudio(unsigned char* header, unsigned char* payload, int length) {
  cms::AudioFrameInfo info;
  info.payloadSize = static_cast<std::uint32_t>(length);
  info.hostSeconds = cms::WallSeconds();
  info.clockOffset = config_.clockOffsetSeconds;
  info.streamNumber = static_cast<unsigned>(config_.streamNumber);
  info.announcedOtherRate = otherFrameRate_;
  info.format = audioFormat_;
  const std::span<std::uint8_t, cms::kAudioHeaderRoom> area(header, cms::kAudioHeaderRoom);
  cms::BuildAudioFrameHeader(area, info);
  OnGetAudioFrame(header, cms::kAudioHeaderRoom, payload, length, config_.channel);
}

void CMSRTSPClient::DescribeAudioFormat(const _RTSPSUBSESSION_CONFIG& audio) {
  audioFormat_ = {};
  const std::string encoding = GetAudioEncoding();
  if (encoding == "PCMU") {
    audioFormat_.codecId = CMS_CODEC_PCM_MULAW;
    audioFormat_.bitsPerSample = 8;
  } else if (encoding == "PCMA") {
    audioFormat_.codecId = CMS_CODEC_PCM_ALAW;
    audioFormat_.bitsPerSample = 8;
  } else if (encoding == "L16") {
    audioFormat_.codecId = CMS_CODEC_PCM_S16BE;  // network byte order (RFC 3551, 4.5.11)
    audioFormat_.bitsPerSample = 16;
  } else {
    SetAudioFormat({.codecId = CMS_CODEC_NONE});
    return;
  }
  audioFormat_.sampleRate = audio.clockRate;
  audioFormat_.channels = static_cast<std::uint16_t>(audio.channels);
  audioType_.store(static_cast<int>(audioFormat_.codecId), std::memory_order_relaxed);
  constexpr std::uint32_t kLongestPacket = 65536;
  SetAudioFormat({.codecId = static_cast<std::int32_t>(audioFormat_.codecId),
                  .sampleRate = audioFormat_.sampleRate,
                  .channels = audioFormat_.channels,
                  .maximumBlockSize = kLongestPacket});
}
