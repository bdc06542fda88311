#include "cms/streaming/http_client.h"

#include <atomic>
#include <cerrno>
#include <new>

#include "cms/audio/audio_player.h"
#include "cms/net/tcp_client.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/log.h"
#include "cms/streaming/internal/group_allocator.h"
#include "cms/streaming/rtsp_url.h"

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
      : TCPClientBase(ConnectionSizes()), client_(client), group_(group, cms::kAutomaticGroup, 1) {}
  ~Connection() override { Connection::End(); }

  int OnConnect(unsigned long, unsigned long port) override {
    return ConnectSocket(address_, port, kConnectTimeoutMs, &client_.OpeningGate().Signal());
  }
  void OnPeerClosed() override { client_.OnConnectionClosed(); }

  int Start(const cms::IpAddress& address, std::uint16_t port) {
    address_ = address;
    return OnStartTCPClient(address.V4(), port, static_cast<unsigned int>(group_.Key()));
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
  cms::IpAddress address_;
};

// The client's lock guards it. While the process thread runs, the connection and the raw buffer are
// its own.
struct CMSHTTPClient::Life {
  cms::stHTTPClientConfig config;
  std::string request;
  cms::IpAddress Address() const { return config.ip ? config.ip : cms::IpAddress(config.address); }
  std::unique_ptr<Connection> connection;
  std::unique_ptr<CRawBuffer> raw;
  std::unique_ptr<cms::AudioPlayer> audioPlayer;
};

struct CMSHTTPClient::ProcessState {
  cms::NamedThread thread;  // started and joined under the lock
  std::atomic<bool> running{false};
  std::atomic<bool> closedByCamera{false};
  std::atomic<bool> parsing{false};  // set before bytes leave the queue, until they are parsed
  std::atomic<std::uint64_t> packets{0};
  std::atomic<std::uint64_t> oversize{0};
};

CMSHTTPClient::CMSHTTPClient()
    : CMSClientBase(this),
      life_(std::make_unique<Life>()),
      process_(std::make_unique<ProcessState>()) {}

CMSHTTPClient::~CMSHTTPClient() {
  OnStopAudioRecorder();
  CMSHTTPClient::StopPlay();
}

int CMSHTTPClient::SetConfig(void* config) {
  if (config == nullptr) {
    return 0;
  }
  ScopeLock lock(lock_);
  if (life_->connection != nullptr) {
    return 0;
  }
  life_->config = *static_cast<const cms::stHTTPClientConfig*>(config);
  life_->request.clear();
  if (life_->config.request != nullptr && life_->config.requestLength > 0) {
    life_->request.assign(life_->config.request,
                          static_cast<std::size_t>(life_->config.requestLength));
  }
  life_->config.request = life_->request.data();
  SetCameraAddress(AddressText());
  ReportAudioType(life_->config.audioType);
  return AllocChannelData(life_->config.channelCount);
}

void CMSHTTPClient::SetRequest(std::string request) {
  ScopeLock lock(lock_);
  life_->request = std::move(request);
  life_->config.request = life_->request.data();
  life_->config.requestLength = static_cast<int>(life_->request.size());
}

void CMSHTTPClient::SetAudioType() {
  ScopeLock lock(lock_);
  if (life_->config.videoType == kVideoTypeWithFixedAudio) {
    ReportAudioType(kFixedAudioType);
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
  if (life_->connection != nullptr || life_->raw != nullptr || process_->thread.IsStarted()) {
    return false;
  }
  MarkOpening();
  SetFault(cms::ConnectionFault::kNone, "");
  if (!Connect() || !InitialCodecs()) {
    SetState(cms::ConnectionState::kClosed);
    return false;
  }
  StartAudioPlayer();
  if (!StartProcessThread() || !SendRequest()) {
    SetState(cms::ConnectionState::kClosed);
    return false;
  }
  MarkOpened();
  SetPlaying(true);
  SetState(cms::ConnectionState::kPlaying);
  return true;
}

void CMSHTTPClient::StartAudioPlayer() {
  life_->audioPlayer = cms::MakeAudioPlayer(life_->config.audioPlayer);
  if (life_->audioPlayer && life_->audioPlayer->Start()) {
    SetAudioPlayer(life_->audioPlayer.get());
  } else {
    life_->audioPlayer.reset();
  }
}

bool CMSHTTPClient::Connect() {
  process_->closedByCamera.store(false);
  life_->connection = std::make_unique<Connection>(*this, life_->config.connectOption);
  if (life_->connection->Start(life_->Address(), life_->config.port) == 0) {
    return FailConnect(life_->connection->Error());
  }
  life_->raw = std::make_unique<CRawBuffer>(kMaxRawBytes, kMaxRawBytes);
  return life_->raw->Data() != nullptr ||
         Fail(cms::ConnectionFault::kOutOfResources, "out of memory");
}

bool CMSHTTPClient::FailConnect(int error) {
  switch (error) {
    case ECANCELED:
      return Fail(cms::ConnectionFault::kCancelled, "closed while connecting");
    case 0:  // the connection stood, but no I/O thread could be had
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return Fail(cms::ConnectionFault::kOutOfResources, "no descriptor, thread or memory left");
    default:
      return Fail(cms::ConnectionFault::kUnreachable,
                  "cannot connect: " + std::generic_category().message(error));
  }
}

bool CMSHTTPClient::InitialCodecs() {
  if (ChannelCount() != life_->config.channelCount) {
    AllocChannelData(life_->config.channelCount);  // StopPlay released them
  }
  // What multipart streams are known to carry.
  const bool known =
      life_->config.codec == cms::CMS_CODEC_MJPEG || life_->config.codec == cms::CMS_CODEC_H264;
  for (unsigned i = 0; i < ChannelCount(); ++i) {
    const auto channel = Channel(i);
    if (!known || channel == nullptr || channel->InitialCodec(life_->config.codec) == 0) {
      for (unsigned opened = 0; opened < ChannelCount(); ++opened) {
        if (const auto other = Channel(opened)) {
          other->ReleaseCodec();
        }
      }
      return Fail(cms::ConnectionFault::kNoUsableVideo, "no decoder for the configured codec");
    }
    channel->SetFindNextIFrameStatus(1);
  }
  return true;
}

bool CMSHTTPClient::StartProcessThread() {
  process_->running.store(true, std::memory_order_relaxed);
  if (!process_->thread.Start("cms-http-client",
                              [this, &connection = *life_->connection, &raw = *life_->raw] {
                                Process(connection, raw);
                              })) {
    process_->running.store(false, std::memory_order_relaxed);
    return Fail(cms::ConnectionFault::kOutOfResources, "cannot start a thread");
  }
  return true;
}

bool CMSHTTPClient::SendRequest() {
  const int length = static_cast<int>(life_->request.size());
  if (cms::IsLogged(cms::LogLevel::kTrace)) {
    cms::Log(cms::LogLevel::kTrace, "http", "-> " + AddressText() + "\n" + life_->request);
  }
  if (length > 0 && life_->connection->OnSend(life_->request.data(), length) != length) {
    return Fail(cms::ConnectionFault::kOutOfResources, "the request is longer than the send queue");
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
  process_->running.store(false, std::memory_order_relaxed);
  if (life_->connection != nullptr) {
    life_->connection->End();
  }
  process_->thread.Join();
  life_->connection.reset();
  life_->raw.reset();
  if (life_->audioPlayer) {
    SetAudioPlayer(nullptr);
    life_->audioPlayer.reset();
  }
  SetPlaying(false);
  SetState(cms::ConnectionState::kClosed);
}

std::string CMSHTTPClient::AddressText() const {
  return life_->Address().UrlText() + ":" + std::to_string(life_->config.port);
}

bool CMSHTTPClient::Fail(cms::ConnectionFault fault, const std::string& what) {
  SetFault(fault, AddressText() + ": " + what);
  return false;
}

// --- Keeping ------------------------------------------------------------------------------------

bool CMSHTTPClient::OpenForKeeping() {
  ScopeLock lock(lock_);
  if (IsClientPlaying() != 0) {
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
  SetFault(cms::ConnectionFault::kClosedByCamera, "the camera ended the connection");
  process_->closedByCamera.store(true);
  PokeKeeping();
}

cms::ConnectionFault CMSHTTPClient::KeepAlive(std::uint64_t, std::uint64_t* nextInMs) {
  ScopeLock lock(lock_);
  if (life_->connection == nullptr) {
    SetFault(cms::ConnectionFault::kCancelled, "stopped by the client application");
    return cms::ConnectionFault::kCancelled;
  }
  *nextInMs = ~std::uint64_t{0};
  if (!process_->closedByCamera.load()) {
    return cms::ConnectionFault::kNone;
  }
  if (life_->connection->IsDataAvail() != 0 || process_->parsing.load()) {
    *nextInMs = kDrainLookMs;
    return cms::ConnectionFault::kNone;
  }
  return cms::ConnectionFault::kClosedByCamera;
}

cms::StreamCounts CMSHTTPClient::Counts() const {
  return {.packets = process_->packets.load(std::memory_order_relaxed),
          .lost = 0,
          .oversize = process_->oversize.load(std::memory_order_relaxed)};
}

// --- The process thread -------------------------------------------------------------------------

void CMSHTTPClient::Process(Connection& connection, CRawBuffer& raw) {
  const std::unique_ptr<char[]> received(new (std::nothrow) char[kReceiveChunk]);
  if (received == nullptr) {
    process_->running.store(false, std::memory_order_relaxed);
    return;
  }
  while (process_->running.load(std::memory_order_relaxed)) {
    connection.WaitForData(-1);  // ended by End, too
    process_->parsing.store(true);
    const int length = connection.OnRecv(received.get(), kReceiveChunk);
    if (length > 0) {
      Keep(raw, received.get(), length);
      // Bytes that ended nothing but sound are no sign that the video lives.
      process_->packets.fetch_add(ParseFrames(raw) ? 0 : 1, std::memory_order_relaxed);
    }
    process_->parsing.store(false);
  }
}

void CMSHTTPClient::Keep(CRawBuffer& raw, const char* data, int length) {
  if (raw.Append(data, length) == 0) {
    process_->oversize.fetch_add(1, std::memory_order_relaxed);
    raw.Clear();
    raw.Append(data, length);
  }
}

// True when there was sound and no picture.
bool CMSHTTPClient::ParseFrames(CRawBuffer& raw) {
  int more = 1;
  bool sound = false;
  bool picture = false;
  while (more == 1 && process_->running.load(std::memory_order_relaxed)) {
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
