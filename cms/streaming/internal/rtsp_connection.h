// The control connection of an RTSP client: requests out; answers and interleaved packets in.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "cms/runtime/critical.h"
#include "cms/runtime/internal/cancel_gate.h"
#include "cms/streaming/internal/camera_connection.h"
#include "cms/streaming/internal/name_lookup.h"
#include "cms/streaming/internal/rtsp_demultiplexer.h"
#include "cms/streaming/internal/rtsp_tunnel.h"
#include "cms/streaming/login.h"

namespace cms {

// Everything that the camera sends is cut into packets and messages on the I/O thread; packets go
// to the sink at once, answers are handed to the one request that waits for their CSeq. Owner's
// calls may come from any thread, one request at a time. What shuts the gate ends their waits.
class RTSPConnection final : public CameraConnection,
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

  // What a tunnel's requests say.
  struct Tunnel {
    std::string path;
    std::string host;  // with its port
    Login login;       // with the credentials, before any challenge
    bool mayLogIn = false;
    int answerLimitMs = 0;
  };

  // The addresses of the host to connect to.
  NameLookup LookUp(const std::string& host, int limitMs) const {
    return LookUpHost(host, limitMs, gate_.Signal());
  }
  // Connects as Connect does, for RTSP inside HTTP, which takes two sockets.
  StreamFailure OpenTunnel(const CameraRoute& route, Tunnel tunnel);
  void SetPrompt(bool prompt) { demultiplexer_.SetPrompt(prompt); }  // before Connect
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

  void OnPeerClosed() override;

 private:
  class Uplink;

  static tTcpClientParam Parameters(RTSPConnection* self);
  static void OnBytes(char* data, int length, void* context);
  void OnInterleavedPacket(int type, std::span<const std::uint8_t> frame) override;
  void OnMessage(std::string_view message) override;
  void OnUnendedMessage(std::string_view message, bool grown) override;
  StreamFailure AskForTunnel(const CameraRoute& route, Tunnel& tunnel, const std::string& cookie);
  StreamFailure WaitTunnel(int limitMs);
  std::span<const std::uint8_t> TakeTunnelHead(std::span<const std::uint8_t> bytes);
  void TakeAnswer(std::string_view message, bool unended);
  Wait WaitAnswerUnless(bool cancellable, int timeoutMs, std::string* answer);
  void AnswerRequest(std::string_view message);
  void MarkClosed();
  void OnCancel() override;
  void Trace(const char* direction, std::string_view text) const;

  Sink& sink_;
  RTSPDemultiplexer demultiplexer_;
  CancelGate& gate_;
  std::atomic<bool> closed_{false};
  std::unique_ptr<Uplink> uplink_;  // of a tunnel: what is sent goes there
  bool headPending_ = false;  // of the answer to a tunnel's GET; the I/O thread's once it runs

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
  TunnelAnswer tunnelAnswer_ CMS_GUARDED_BY(lock_);
};

}  // namespace cms
