// An RTSP server inside the test program: by itself a well-behaved camera, of which a test replaces
// single answers to see how a client takes them.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/rtsp_message.h"
#include "tests/support/scripted_camera.h"

namespace test {

// Listens on 127.0.0.1 from construction on. Handlers run on the connection's thread, one at a time
// for a connection, and may call any member but Start and Stop. Every other member may be called
// from any thread.
class ScriptedRtspServer {
 public:
  using Handler = std::function<RtspAnswer(const RtspRequest&)>;
  using Clock = std::chrono::steady_clock;

  explicit ScriptedRtspServer(ScriptedCamera camera = {});
  ~ScriptedRtspServer();
  ScriptedRtspServer(const ScriptedRtspServer&) = delete;
  ScriptedRtspServer& operator=(const ScriptedRtspServer&) = delete;

  // Switches the camera off (connections are closed, new ones refused) and on again at the same
  // port.
  void Stop();
  void Start();

  std::uint16_t Port() const { return port_; }
  std::string Url() const;  // rtsp://127.0.0.1:PORT/live
  std::string UrlFor(std::string_view user, std::string_view password) const;

  // Replaces the answer to a method ("*": to every method that has no handler of its own), for good
  // or for the next request only. Handlers for the next request come first, in the order given.
  void On(const std::string& method, Handler handler);
  void Once(const std::string& method, Handler handler);
  // What the camera answers by itself; handlers call it to change a good answer a little.
  std::string GoodAnswer(const RtspRequest& request);
  // Done once on each new connection before anything was asked (of an empty request).
  void OnConnect(Handler handler);
  // From now on only this nonce is good, as when a camera lets its old one expire.
  void SetNonce(const std::string& nonce);

  // What was seen so far.
  std::vector<RtspRequest> Requests() const;
  std::vector<RtspRequest> Requests(std::string_view method) const;
  std::size_t Count(std::string_view method) const;
  std::vector<Clock::time_point> Connections() const;  // when each was accepted
  std::size_t OpenConnections() const;
  std::size_t Playing() const;                           // sessions between PLAY and their end
  std::vector<std::string> InterleavedReceived() const;  // whole blocks from clients, with "$"
  std::size_t RtcpReceived(std::size_t track) const;     // datagrams at the track's RTCP ports

  // Sends packets of a track to the newest session that set it up, over its transport; false when
  // there is none or its connection is gone.
  bool SendRtp(std::size_t track, std::span<const std::string> packets);
  bool SendRtp(std::size_t track, const std::string& packet) {
    return SendRtp(track, {&packet, 1});
  }
  bool SendRtcp(std::size_t track, const std::string& packet);
  // Sends bytes as they are on the newest open connection.
  bool SendRaw(std::string_view bytes);
  void CloseConnections();

 private:
  struct Connection;

  void Accept();
  void Serve(Connection& connection);
  bool React(Connection& connection, const RtspAnswer& answer);
  RtspAnswer Answer(const RtspRequest& request);
  std::string SessionAnswer(const RtspRequest& request, Connection& connection);
  std::string Setup(const RtspRequest& request, Connection& connection);
  std::shared_ptr<Connection> Find(std::size_t number) const;
  bool SendPackets(std::size_t track, std::span<const std::string> packets, bool rtcp);

  const ScriptedCamera camera_;
  std::uint16_t port_;
  int listener_ = -1;
  std::thread acceptor_;

  mutable std::mutex mutex_;
  std::condition_variable stopped_;
  bool stopping_ = false;
  std::map<std::string, Handler> handlers_;
  std::map<std::string, std::deque<Handler>> once_;
  Handler onConnect_;
  std::string nonce_ = "b5f2c09a7e13";
  std::vector<RtspRequest> requests_;
  std::vector<Clock::time_point> accepted_;
  std::vector<std::string> interleaved_;
  std::vector<std::shared_ptr<Connection>> connections_;  // the latest; old ended ones are dropped
};

}  // namespace test
