#include "cms/streaming/http_client.h"

#include <cerrno>
#include <cstdio>
#include <new>

#include "cms/audio/audio_player.h"
#include "cms/net/tcp_client.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/streaming/internal/group_allocator.h"

namespace {

constexpr int kReceiveDepth = 30;
constexpr int kReceiveChunk = 10240;
constexpr int kSendDepth = 4;
constexpr int kSendChunk = 10240;
constexpr int kConnectTimeoutMs = 10'000;

// A connection that ended is given up once its last bytes are parsed; looked at so often until
// then.
constexpr std::uint64_t kDrainLookMs = 20;

constexpr int kVideoTypeWithFixedAudio = 5;
constexpr int kFixedAudioType = 13;

tTcpClientParam ConnectionSizes() {
  tTcpClientParam sizes;
  sizes.recvQueueDepth = kReceiveDepth;
  sizes.recvChunkSize = kReceiveChunk;
  sizes.sendQueueDepth = kSendDepth;
  sizes.sendChunkSize = kSendChunk;
  return sizes;
}

}  // namespace

class CMSHTTPClient::Connection final : public TCPClientBase {
 public:
  Connection(CMSHTTPClient& client, int group)
      : TCPClientBase(ConnectionSizes()), client_(client), group_(group, kAutomaticGroup, 1) {}
  ~Connection() override { Connection::End(); }

  int OnConnect(unsigned long address, unsigned long port) override {
    return ConnectSocket(address, port, kConnectTimeoutMs, &client_.OpeningGate().Signal());
  }
  void OnPeerClosed() override { client_.OnConnectionClosed(); }

  int Start(std::uint32_t address, std::uint16_t port) {
    return OnStartTCPClient(address, port, static_cast<unsigned int>(group_.Key()));
  }
  // Wakes the process thread for good.
  void End() {
    OnStopTCPClient(true);
    OnReleaseMemory();
  }
  int Error() const { return LastSocketError(); }

 private:
  CMSHTTPClient& client_;
  cms::GroupClaim group_;
};

CMSHTTPClient::CMSHTTPClient()
    : CMSClientBase(this), processThread_(std::make_unique<cms::NamedThread>()) {}

CMSHTTPClient::~CMSHTTPClient() {
  OnStopAudioRecorder();
  CMSHTTPClient::StopPlay();
}

int CMSHTTPClient::SetConfig(void* config) {
  if (config == nullptr) {
    return 0;
  }
  ScopeLock lock(lock_);
  if (connection_ != nullptr) {
    return 0;
  }
  config_ = *static_cast<const stHTTPClientConfig*>(config);
  request_.clear();
  if (config_.request != nullptr && config_.requestLength > 0) {
    request_.assign(config_.request, static_cast<std::size_t>(config_.requestLength));
  }
  config_.request = request_.data();
  audioType_.store(config_.audioType, std::memory_order_relaxed);
  return AllocChannelData(config_.channelCount);
}

void CMSHTTPClient::SetRequest(std::string request) {
  ScopeLock lock(lock_);
  request_ = std::move(request);
  config_.request = request_.data();
  config_.requestLength = static_cast<int>(request_.size());
}

void CMSHTTPClient::SetAudioType() {
  ScopeLock lock(lock_);
  if (config_.videoType == kVideoTypeWithFixedAudio) {
    audioType_.store(kFixedAudioType, std::memory_order_relaxed);
  }
}

int CMSHTTPClient::ChangeRecordFile() {
  return ChangeRecorderFile();
}
int CMSHTTPClient::ChangeRecordPath(const wchar_t* path) {
  return ChangeRecorderPath(path);
}

// --- Life ---------------------------------------------------------------------------------------

int CMSHTTPClient::Play() {
  {
    ScopeLock lock(lock_);
    if (!OpenLocked()) {
      return 0;
    }
  }
  StartKeeping();
  return 1;
}

bool CMSHTTPClient::OpenLocked() {
  if (connection_ != nullptr || raw_ != nullptr || processThread_->IsStarted()) {
    return false;
  }
  MarkOpening();
  SetFault(ConnectionFault::kNone, "");
  if (!Connect() || !InitialCodecs()) {
    SetState(ConnectionState::kClosed);
    return false;
  }
  StartAudioPlayer();
  if (!StartProcessThread() || !SendRequest()) {
    SetState(ConnectionState::kClosed);
    return false;
  }
  MarkOpened();
  playing_.store(1, std::memory_order_relaxed);
  SetState(ConnectionState::kPlaying);
  return true;
}

void CMSHTTPClient::StartAudioPlayer() {
  audioPlayer_ = cms::MakeAudioPlayer(config_.audioPlayer);
  if (audioPlayer_ && audioPlayer_->Start()) {
    SetAudioPlayer(audioPlayer_.get());
  } else {
    audioPlayer_.reset();
  }
}

bool CMSHTTPClient::Connect() {
  closedByCamera_.store(false);
  connection_ = std::make_unique<Connection>(*this, config_.connectOption);
  if (connection_->Start(config_.address, config_.port) == 0) {
    return FailConnect(connection_->Error());
  }
  raw_ = std::make_unique<CRawBuffer>(kMaxRawBytes, kMaxRawBytes);
  return raw_->Data() != nullptr || Fail(ConnectionFault::kOutOfResources, "out of memory");
}

bool CMSHTTPClient::FailConnect(int error) {
  switch (error) {
    case ECANCELED:
      return Fail(ConnectionFault::kCancelled, "closed while connecting");
    case 0:  // the connection stood, but no I/O thread could be had
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return Fail(ConnectionFault::kOutOfResources, "no descriptor, thread or memory left");
    default:
      return Fail(ConnectionFault::kUnreachable,
                  "cannot connect: " + std::generic_category().message(error));
  }
}

bool CMSHTTPClient::InitialCodecs() {
  if (ChannelCount() != config_.channelCount) {
    AllocChannelData(config_.channelCount);  // StopPlay released them
  }
  for (unsigned i = 0; i < ChannelCount(); ++i) {
    const auto channel = Channel(i);
    if (channel == nullptr || channel->InitialCodec(config_.codec) == 0) {
      for (unsigned opened = 0; opened < ChannelCount(); ++opened) {
        if (const auto other = Channel(opened)) {
          other->ReleaseCodec();
        }
      }
      return Fail(ConnectionFault::kNoUsableVideo, "no decoder for the configured codec");
    }
    channel->SetFindNextIFrameStatus(1);
  }
  return true;
}

bool CMSHTTPClient::StartProcessThread() {
  running_.store(true, std::memory_order_relaxed);
  if (!processThread_->Start("cms-http-client", [this, &connection = *connection_, &raw = *raw_] {
        Process(connection, raw);
      })) {
    running_.store(false, std::memory_order_relaxed);
    return Fail(ConnectionFault::kOutOfResources, "cannot start a thread");
  }
  return true;
}

bool CMSHTTPClient::SendRequest() {
  const int length = static_cast<int>(request_.size());
  if (length > 0 && connection_->OnSend(request_.data(), length) != length) {
    return Fail(ConnectionFault::kOutOfResources, "the request is longer than the send queue");
  }
  return true;
}

int CMSHTTPClient::StopPlay() {
  const cms::CancelGate::Shut shut(OpeningGate());
  StopKeeping();
  ScopeLock lock(lock_);
  CloseLocked();
  AllocChannelData(0);
  return 1;
}

void CMSHTTPClient::CloseLocked() {
  running_.store(false, std::memory_order_relaxed);
  if (connection_ != nullptr) {
    connection_->End();
  }
  processThread_->Join();
  connection_.reset();
  raw_.reset();
  if (audioPlayer_) {
    SetAudioPlayer(nullptr);
    audioPlayer_.reset();
  }
  playing_.store(0, std::memory_order_relaxed);
  SetState(ConnectionState::kClosed);
}

bool CMSHTTPClient::Fail(ConnectionFault fault, const std::string& what) {
  char address[64];
  std::snprintf(address, sizeof address, "%u.%u.%u.%u:%u: ", config_.address >> 24,
                config_.address >> 16 & 255, config_.address >> 8 & 255, config_.address & 255,
                unsigned{config_.port});
  SetFault(fault, address + what);
  return false;
}

// --- Keeping ------------------------------------------------------------------------------------

bool CMSHTTPClient::OpenForKeeping() {
  ScopeLock lock(lock_);
  if (playing_.load(std::memory_order_relaxed) != 0) {
    return true;  // the client application was faster
  }
  if (!OpenLocked()) {
    CloseLocked();
    return false;
  }
  return true;
}

void CMSHTTPClient::CloseForKeeping() {
  ScopeLock lock(lock_);
  CloseLocked();
}

void CMSHTTPClient::OnConnectionClosed() {
  SetFault(ConnectionFault::kClosedByCamera, "the camera ended the connection");
  closedByCamera_.store(true);
  PokeKeeping();
}

ConnectionFault CMSHTTPClient::KeepAlive(std::uint64_t, std::uint64_t* nextInMs) {
  ScopeLock lock(lock_);
  if (connection_ == nullptr) {
    SetFault(ConnectionFault::kCancelled, "stopped by the client application");
    return ConnectionFault::kCancelled;
  }
  *nextInMs = ~std::uint64_t{0};
  if (!closedByCamera_.load()) {
    return ConnectionFault::kNone;
  }
  if (connection_->IsDataAvail() != 0 || parsing_.load()) {
    *nextInMs = kDrainLookMs;
    return ConnectionFault::kNone;
  }
  return ConnectionFault::kClosedByCamera;
}

cms::StreamCounts CMSHTTPClient::Counts() const {
  return {.packets = packets_.load(std::memory_order_relaxed),
          .lost = 0,
          .oversize = oversize_.load(std::memory_order_relaxed)};
}

// --- The process thread -------------------------------------------------------------------------

void CMSHTTPClient::Process(Connection& connection, CRawBuffer& raw) {
  const std::unique_ptr<char[]> received(new (std::nothrow) char[kReceiveChunk]);
  if (received == nullptr) {
    running_.store(false, std::memory_order_relaxed);
    return;
  }
  while (running_.load(std::memory_order_relaxed)) {
    connection.WaitForData(-1);  // ended by End, too
    parsing_.store(true);
    const int length = connection.OnRecv(received.get(), kReceiveChunk);
    if (length > 0) {
      Keep(raw, received.get(), length);
      // Bytes that ended nothing but sound are no sign that the video lives.
      packets_.fetch_add(ParseFrames(raw) ? 0 : 1, std::memory_order_relaxed);
    }
    parsing_.store(false);
  }
}

void CMSHTTPClient::Keep(CRawBuffer& raw, const char* data, int length) {
  if (raw.Append(data, length) == 0) {
    oversize_.fetch_add(1, std::memory_order_relaxed);
    raw.Clear();
    raw.Append(data, length);
  }
}

// True when there was sound and no picture.
bool CMSHTTPClient::ParseFrames(CRawBuffer& raw) {
  int more = 1;
  bool sound = false;
  bool picture = false;
  while (more == 1 && running_.load(std::memory_order_relaxed)) {
    int isAudio = 0;
    int length = 0;
    int videoFlag = 0;
    int extra = 0;
    if (ParseStreamFrame(&raw, &isAudio, &length, &videoFlag, &extra, &more) == 0) {
      continue;
    }
    if (length <= 0 || length > raw.Length()) {
      break;  // no frame of this length is there: asking again would not end
    }
    (isAudio != 0 ? sound : picture) = true;
    if (isAudio != 0) {
      OnStreamAudioFrame(0, 0, raw.Data(), length, extra);
    } else {
      OnStreamVideoFrame(0, 0, raw.Data(), length, extra, videoFlag);
    }
    if (length <= raw.Length()) {
      raw.Erase(0, length);
    }
  }
  return sound && !picture;
}
