#include "cms/streaming/internal/rtsp_connection.h"

#include <openssl/evp.h>

#include <array>
#include <chrono>
#include <utility>

#include "cms/runtime/digest.h"
#include "cms/runtime/log.h"
#include "cms/streaming/internal/rtsp_message.h"

namespace cms {
namespace {

// One read takes what a 4 Mbit/s stream delivers in a tenth of a second.
constexpr int kReceiveChunk = 64 * 1024;
constexpr int kSendChunk = 4096;
constexpr int kSendDepth = 16;

// A description that says nothing about its length ends with a silence.
constexpr std::chrono::milliseconds kEndOfDescription{300};

constexpr std::size_t kCodedPacket = 2400;  // bytes in Base64: an interleaved packet of 1,500

tTcpClientParam UplinkParameters() {
  tTcpClientParam parameters{};
  parameters.recvQueueDepth = 2;
  parameters.sendQueueDepth = kSendDepth;
  parameters.sendChunkSize = kSendChunk;
  parameters.recvCallback = [](char*, int, void*) {};  // an answer to the POST says nothing
  return parameters;
}

}  // namespace

// The POST of a tunnel.
class RTSPConnection::Uplink final : public CameraConnection {
 public:
  Uplink(RTSPConnection& connection, CancelGate& gate)
      : CameraConnection(UplinkParameters(), gate), connection_(connection) {}
  ~Uplink() override { Disconnect(); }
  void OnPeerClosed() override { connection_.MarkClosed(); }

  StreamFailure Connect(const CameraRoute& route, std::string head) {
    head_ = std::move(head);
    return CameraConnection::Connect(route);
  }
  // The head goes out before anything else is queued, under TLS in a record of its own: servers
  // that hand the connection over to the GET's behind it lose sight of what came in the same
  // record.
  int OnConnect(unsigned long address, unsigned long port) override {
    if (CameraConnection::OnConnect(address, port) == 0) {
      return 0;
    }
    const int size = static_cast<int>(head_.size());
    if (NBLSend(Socket(), head_.data(), size) == size) {
      return 1;
    }
    CloseSocket();
    return 0;
  }

  // As Base64, all of it or nothing. Nothing is allocated for a packet of sound; a longer text is a
  // request.
  bool SendCoded(std::string_view text) {
    std::array<char, kCodedPacket + 1> room;  // the encoder ends it with a zero
    std::string longer;
    std::span<char> coded;
    if (text.size() <= kCodedPacket / 4 * 3) {
      const int size = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(room.data()),
                                       reinterpret_cast<const unsigned char*>(text.data()),
                                       static_cast<int>(text.size()));
      coded = std::span(room).first(static_cast<std::size_t>(size));
    } else {
      longer = Base64(text);
      coded = longer;
    }
    const int size = static_cast<int>(coded.size());
    return OnSend(coded.data(), size) == size;
  }

 private:
  RTSPConnection& connection_;
  std::string head_;  // of the POST
};

tTcpClientParam RTSPConnection::Parameters(RTSPConnection* self) {
  tTcpClientParam parameters{};
  parameters.recvQueueDepth = 2;  // unused: bytes go to the callback
  parameters.recvChunkSize = kReceiveChunk;
  parameters.sendQueueDepth = kSendDepth;
  parameters.sendChunkSize = kSendChunk;
  parameters.recvCallback = &RTSPConnection::OnBytes;
  parameters.recvContext = self;
  return parameters;
}

RTSPConnection::RTSPConnection(Sink& sink, CancelGate& gate)
    : CameraConnection(Parameters(this), gate), sink_(sink), demultiplexer_(*this), gate_(gate) {
  gate_.Enter(*this);
}

RTSPConnection::~RTSPConnection() {
  Shut();
}

void RTSPConnection::Shut() {
  gate_.Leave(*this);
  if (uplink_ != nullptr) {
    uplink_->Disconnect();
  }
  Disconnect();
}

void RTSPConnection::OnBytes(char* data, int length, void* context) {
  auto* const self = static_cast<RTSPConnection*>(context);
  std::span<const std::uint8_t> bytes{reinterpret_cast<const std::uint8_t*>(data),
                                      static_cast<std::size_t>(length)};
  if (self->headPending_) [[unlikely]] {
    bytes = self->TakeTunnelHead(bytes);
  }
  self->demultiplexer_.Add(bytes);
}

void RTSPConnection::Trace(const char* direction, std::string_view text) const {
  if (IsLogged(LogLevel::kTrace)) {
    Log(LogLevel::kTrace, "rtsp",
        std::string(direction) + " " + Peer().UrlText() + "\n" + std::string(text));
  }
}

// --- RTSP inside HTTP ---------------------------------------------------------------------------

StreamFailure RTSPConnection::OpenTunnel(const CameraRoute& route, Tunnel tunnel) {
  const std::string cookie = NewTunnelCookie();
  uplink_ = std::make_unique<Uplink>(*this, gate_);  // before the I/O thread can ask for it
  if (auto failure = AskForTunnel(route, tunnel, cookie)) {
    return failure;
  }
  CameraRoute same = route;  // the camera's own address, of several
  same.addresses = {Peer()};
  const std::string post = TunnelRequest{tunnel.path, tunnel.host, cookie,
                                         tunnel.login.AuthorizationLine("POST", tunnel.path)}
                               .Post();
  Trace("->", post);
  return uplink_->Connect(same, post);
}

// The camera may want the login of its web server, and does not always keep the connection then.
StreamFailure RTSPConnection::AskForTunnel(const CameraRoute& route, Tunnel& tunnel,
                                           const std::string& cookie) {
  for (bool mayLogIn = tunnel.mayLogIn;; mayLogIn = false) {
    {
      const ScopeLock hold(lock_);
      tunnelAnswer_ = {};
      closed_.store(false);
    }
    headPending_ = true;
    if (auto failure = Connect(route)) {
      return failure;
    }
    const std::string get = TunnelRequest{tunnel.path, tunnel.host, cookie,
                                          tunnel.login.AuthorizationLine("GET", tunnel.path)}
                                .Get();
    Trace("->", get);
    OnSend(const_cast<char*>(get.data()), static_cast<int>(get.size()));
    if (auto failure = WaitTunnel(tunnel.answerLimitMs)) {
      return failure;
    }
    TunnelAnswer answer;
    {
      const ScopeLock hold(lock_);
      answer = tunnelAnswer_;
    }
    Trace("<-", answer.Head());
    const unsigned status = answer.Status();
    if (status == 200) {
      return {};
    }
    if (status != 401) {
      return {ConnectionFault::kTransportRefused,
              "the tunnel was answered with HTTP status " + std::to_string(status) +
                  ": there is no RTSP inside HTTP at this port (the camera's web server's, 80 as a "
                  "rule)"};
    }
    if (!mayLogIn || !tunnel.login.ReadChallenges(answer.Head())) {
      return {ConnectionFault::kPasswordRefused,
              "the tunnel was answered with HTTP status 401: " +
                  (!tunnel.login.Problem().empty() ? tunnel.login.Problem()
                   : tunnel.mayLogIn               ? "user name or password is wrong"
                                     : "the camera wants a user name and a password")};
    }
    Disconnect();
  }
}

StreamFailure RTSPConnection::WaitTunnel(int limitMs) {
  const ScopeLock hold(lock_);
  arrived_.wait_for(lock_, std::chrono::milliseconds(limitMs), [&]() CMS_REQUIRES(lock_) {
    return tunnelAnswer_.IsEnded() || gate_.IsShut() || closed_.load();
  });
  if (tunnelAnswer_.IsEnded()) {
    return {};
  }
  if (gate_.IsShut()) {
    return {ConnectionFault::kCancelled, "closed while opening"};
  }
  return closed_.load()
             ? StreamFailure{ConnectionFault::kTransportRefused,
                             "the camera closed the connection instead of answering the tunnel: "
                             "there is no RTSP inside HTTP at this port"}
             : StreamFailure{ConnectionFault::kNoAnswer, "the tunnel was not answered within " +
                                                             std::to_string(limitMs / 1000) + " s"};
}

std::span<const std::uint8_t> RTSPConnection::TakeTunnelHead(std::span<const std::uint8_t> bytes) {
  const ScopeLock hold(lock_);
  bytes = tunnelAnswer_.Take(bytes);
  headPending_ = !tunnelAnswer_.IsEnded();
  arrived_.notify_all();
  return bytes;
}

// --- Messages -----------------------------------------------------------------------------------

void RTSPConnection::OnInterleavedPacket(int type, std::span<const std::uint8_t> frame) {
  sink_.OnPacket(type, frame);
}

void RTSPConnection::OnMessage(std::string_view text) {
  Trace("<-", text);
  const RTSPMessage message(text);
  if (message.IsResponse()) {
    TakeAnswer(text, false);
  } else {
    AnswerRequest(text);
  }
}

void RTSPConnection::OnUnendedMessage(std::string_view text, bool grown) {
  Trace("<-", text);
  if (!grown) {
    TakeAnswer(text, true);
    return;
  }
  const ScopeLock hold(lock_);
  if (answer_ && unended_ && text.size() > answer_->size()) {
    answer_->append(text.substr(answer_->size()));
    arrived_.notify_all();
  }
}

void RTSPConnection::TakeAnswer(std::string_view text, bool unended) {
  std::string unfolded(text);
  UnfoldHead(unfolded);
  const RTSPMessage message(unfolded);
  const unsigned status = message.Status();
  if (status >= 100 && status < 200) {
    return;  // the answer proper is still to come
  }
  const std::optional<int> cseq = message.CSeq();
  bool keepAlive = false;
  {
    const ScopeLock hold(lock_);
    // Some cameras leave out the CSeq, or always send the same: then the only request that can be
    // meant takes the answer.
    const bool only = keepAlive_ == 0 && !unanswered_;
    if (expected_ != 0 && (!cseq || *cseq == expected_ || only)) {
      answer_ = unfolded;
      unended_ = unended;
      expected_ = 0;
      arrived_.notify_all();
    } else if (keepAlive_ != 0 &&
               (!cseq || *cseq == keepAlive_ || (expected_ == 0 && !unanswered_))) {
      keepAliveAnswer_ = unfolded;
      keepAlive_ = 0;
      keepAlive = true;
    }
  }
  if (keepAlive) {
    sink_.OnConnectionEvent();
  }
}

void RTSPConnection::AnswerRequest(std::string_view text) {
  const RTSPMessage message(text);
  const std::string_view method = message.Method();
  const bool known = method == "OPTIONS" || method == "GET_PARAMETER" || method == "SET_PARAMETER";
  const std::string answer =
      std::string(known ? "RTSP/1.0 200 OK\r\n" : "RTSP/1.0 501 Not Implemented\r\n") +
      "CSeq: " + std::to_string(message.CSeq().value_or(0)) + "\r\n\r\n";
  SendWhole(answer);
}

int RTSPConnection::SendWhole(std::string_view text) {
  Trace("->", text);
  const int length = static_cast<int>(text.size());
  if (uplink_ != nullptr) {
    if (uplink_->SendCoded(text)) {
      return length;
    }
  } else if (OnSend(const_cast<char*>(text.data()), length) == length) {
    return length;
  }
  // The camera has taken nothing for 64 KiB of requests, and half a message is queued now: what
  // follows could not be told apart.
  MarkClosed();
  return 0;
}

bool RTSPConnection::SendRequest(std::string_view request, int cseq) {
  {
    const ScopeLock hold(lock_);
    answer_.reset();
    unended_ = false;
    expected_ = cseq;
  }
  demultiplexer_.ExpectDescription(request.starts_with("DESCRIBE "));
  return SendWhole(request) != 0;
}

RTSPConnection::Wait RTSPConnection::WaitAnswer(int timeoutMs, std::string* answer) {
  return WaitAnswerUnless(true, timeoutMs, answer);
}

RTSPConnection::Wait RTSPConnection::WaitLastAnswer(int timeoutMs, std::string* answer) {
  return WaitAnswerUnless(false, timeoutMs, answer);
}

RTSPConnection::Wait RTSPConnection::WaitAnswerUnless(bool cancellable, int timeoutMs,
                                                      std::string* answer) {
  const ScopeLock hold(lock_);
  const auto cancelled = [&] { return cancellable && gate_.IsShut(); };
  arrived_.wait_for(lock_, std::chrono::milliseconds(timeoutMs),
                    [&]() CMS_REQUIRES(lock_) { return answer_ || cancelled() || closed_.load(); });
  expected_ = 0;
  for (std::size_t seen = 0; answer_ && unended_ && answer_->size() > seen;) {
    seen = answer_->size();
    arrived_.wait_for(lock_, kEndOfDescription, [&]() CMS_REQUIRES(lock_) {
      return cancelled() || closed_.load() || answer_->size() > seen;
    });
  }
  if (answer_) {
    *answer = std::move(*answer_);
    answer_.reset();
    return Wait::kAnswer;
  }
  unanswered_ = true;
  if (cancelled()) {
    return Wait::kCancelled;
  }
  return closed_.load() ? Wait::kClosed : Wait::kTimeout;
}

bool RTSPConnection::SendKeepAlive(std::string_view request, int cseq) {
  {
    const ScopeLock hold(lock_);
    keepAlive_ = cseq;
    keepAliveAnswer_.reset();
  }
  return SendWhole(request) != 0;
}

std::optional<std::string> RTSPConnection::TakeKeepAliveAnswer() {
  const ScopeLock hold(lock_);
  return std::exchange(keepAliveAnswer_, std::nullopt);
}

bool RTSPConnection::KeepAliveIsOpen() {
  const ScopeLock hold(lock_);
  return keepAlive_ != 0;
}

void RTSPConnection::OnCancel() {
  const ScopeLock hold(lock_);
  arrived_.notify_all();
}

void RTSPConnection::MarkClosed() {
  {
    const ScopeLock hold(lock_);
    closed_.store(true);
    arrived_.notify_all();
  }
  sink_.OnConnectionEvent();
}

void RTSPConnection::OnPeerClosed() {
  MarkClosed();
}

}  // namespace cms
