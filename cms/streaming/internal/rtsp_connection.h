// The control connection of an RTSP client: requests out; answers and interleaved packets in.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "cms/net/tcp_client.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/name_lookup.h"
#include "cms/streaming/internal/rtsp_demultiplexer.h"

namespace cms {

// Everything that the camera sends is cut into packets and messages on the I/O thread; packets go
// to the sink at once, answers are handed to the one request that waits for their CSeq. Owner's
// calls may come from any thread, one request at a time. What shuts the gate ends their waits.
class RTSPConnection final : public TCPClientBase,
                             private RTSPDemultiplexer::Sink,
                             private CancelGate::Waiter {
 public:
  class Sink {
   public:
    // On the I/O thread, with its lock held. `frame` begins with the 4-byte interleaved header;
    // `type` is the index of its channel in what SetChannels was given.
    virtual void OnPacket(int type, std::span<const std::uint8_t> frame) = 0;
    // On the I/O thread: an answer to the keep-alive came, or the connection ended.
    virtual void OnConnectionEvent() = 0;

   protected:
    ~Sink() = default;
  };

  enum class Wait { kAnswer, kTimeout, kClosed, kCancelled };

  RTSPConnection(Sink& sink, CancelGate& gate);
  ~RTSPConnection() override;

  // The address of the host to connect to.
  NameLookup LookUp(const std::string& host, int limitMs) const {
    return LookUpIPv4(host, limitMs, gate_.Signal());
  }
  // Connects and registers with the I/O threads of the group; false: see LastError().
  bool Open(std::uint32_t address, std::uint16_t port, int timeoutMs, int group);
  void SetChannels(const RTSPStreamChannels& channels) { demultiplexer_.SetChannels(channels); }

  // Sends a whole request and makes its answer the one that WaitAnswer waits for.
  bool SendRequest(std::string_view request, int cseq);
  Wait WaitAnswer(int timeoutMs, std::string* answer);
  // The same for the last request of all, which waits although the gate is shut.
  Wait WaitLastAnswer(int timeoutMs, std::string* answer);

  // Sends a keep-alive; its answer comes through TakeKeepAliveAnswer.
  bool SendKeepAlive(std::string_view request, int cseq);
  std::optional<std::string> TakeKeepAliveAnswer();
  // Whether a keep-alive was sent whose answer has not come.
  bool KeepAliveIsOpen();

  // Queues all of the text or nothing; returns its length or 0.
  int SendWhole(std::string_view text);
  // Ends the connection: no event comes after it.
  void Shut();

  bool Cancelled() const { return gate_.IsShut(); }
  bool PeerClosed() const { return closed_.load(); }
  int LastError() const { return LastSocketError(); }

  int OnConnect(unsigned long address, unsigned long port) override;
  void OnPeerClosed() override;

 private:
  static tTcpClientParam Parameters(RTSPConnection* self);
  static void OnBytes(char* data, int length, void* context);
  void OnInterleavedPacket(int type, std::span<const std::uint8_t> frame) override;
  void OnMessage(std::string_view message) override;
  void OnUnendedMessage(std::string_view message, bool grown) override;
  void TakeAnswer(std::string_view message, bool unended);
  Wait WaitAnswerUnless(bool cancellable, int timeoutMs, std::string* answer);
  void AnswerRequest(std::string_view message);
  void MarkClosed();
  void OnCancel() override;

  Sink& sink_;
  RTSPDemultiplexer demultiplexer_;
  CancelGate& gate_;
  std::atomic<bool> closed_{false};
  int connectTimeoutMs_ = -1;
  std::atomic<bool> started_{false};

  CMSCritical lock_;                        // of the mailbox
  std::condition_variable_any arrived_;     // or nothing will
  int expected_ CMS_GUARDED_BY(lock_) = 0;  // CSeq of the request that is waited for, 0: none
  std::optional<std::string> answer_ CMS_GUARDED_BY(lock_);
  // More of the answer may come: it says nothing about its length.
  bool unended_ CMS_GUARDED_BY(lock_) = false;
  // A request is, so that a late answer may still come.
  bool unanswered_ CMS_GUARDED_BY(lock_) = false;
  int keepAlive_ CMS_GUARDED_BY(lock_) = 0;  // CSeq of the one that is not answered, 0: none
  std::optional<std::string> keepAliveAnswer_ CMS_GUARDED_BY(lock_);
};

}  // namespace cms
