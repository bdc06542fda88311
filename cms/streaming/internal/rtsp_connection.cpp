#include "cms/streaming/internal/rtsp_connection.h"

#include <chrono>
#include <utility>

#include "cms/streaming/internal/rtsp_message.h"

namespace cms {
namespace {

// One read takes what a 4 Mbit/s stream delivers in a tenth of a second.
constexpr int kReceiveChunk = 64 * 1024;
constexpr int kSendChunk = 4096;
constexpr int kSendDepth = 16;

// A description that says nothing about its length ends with a silence.
constexpr std::chrono::milliseconds kEndOfDescription{300};

}  // namespace

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
    : TCPClientBase(Parameters(this)), sink_(sink), demultiplexer_(*this), gate_(gate) {
  gate_.Enter(*this);
}

RTSPConnection::~RTSPConnection() {
  Shut();
}

void RTSPConnection::Shut() {
  gate_.Leave(*this);
  if (started_.exchange(false)) {
    OnStopTCPClient(true);
  }
}

bool RTSPConnection::Open(std::uint32_t address, std::uint16_t port, int timeoutMs, int group) {
  connectTimeoutMs_ = timeoutMs;
  started_ = OnStartTCPClient(address, port, static_cast<unsigned int>(group)) != 0;
  return started_;
}

int RTSPConnection::OnConnect(unsigned long address, unsigned long port) {
  return ConnectSocket(address, port, connectTimeoutMs_, &gate_.Signal());
}

void RTSPConnection::OnBytes(char* data, int length, void* context) {
  static_cast<RTSPConnection*>(context)->demultiplexer_.Add(
      {reinterpret_cast<const std::uint8_t*>(data), static_cast<std::size_t>(length)});
}

void RTSPConnection::OnInterleavedPacket(int type, std::span<const std::uint8_t> frame) {
  sink_.OnPacket(type, frame);
}

void RTSPConnection::OnMessage(std::string_view text) {
  const RTSPMessage message(text);
  if (message.IsResponse()) {
    TakeAnswer(text, false);
  } else {
    AnswerRequest(text);
  }
}

void RTSPConnection::OnUnendedMessage(std::string_view text, bool grown) {
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
  const RTSPMessage message(text);
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
      answer_ = std::string(text);
      unended_ = unended;
      expected_ = 0;
      arrived_.notify_all();
    } else if (keepAlive_ != 0 &&
               (!cseq || *cseq == keepAlive_ || (expected_ == 0 && !unanswered_))) {
      keepAliveAnswer_ = std::string(text);
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
  const int length = static_cast<int>(text.size());
  if (OnSend(const_cast<char*>(text.data()), length) == length) {
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
