// RTSPDemultiplexer cuts the bytes of an RTSP connection into interleaved packets and RTSP
// messages.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>

#include "cms/streaming/interleaved.h"

namespace cms {

// What a channel carries beyond the types of RTSPInterleaveType: sound to the camera, of which only
// the camera's RTCP comes in.
inline constexpr int kInterleaveTalkRTP = 4;
inline constexpr int kInterleaveTalkRTCP = 5;

// Channel ids by type: the four of RTSPChannelIds, then those of the talk stream; -1 for none.
using RTSPStreamChannels = std::array<int, 6>;
inline constexpr RTSPStreamChannels kNoChannels = {-1, -1, -1, -1, -1, -1};

// The rules:
// - A frame ("$", a channel id, a length) is taken only when it is there whole and is followed by
//   the four bytes of another valid header, so that a "$" inside lost data is not taken for one.
//   The start of an RTSP message counts as a valid header too: an answer between two packets costs
//   neither. Where that is asked for (SetPrompt), a frame in step behind which nothing has come yet
//   is taken at once: of a picture's last packet the next one would be a picture late.
// - While the stream is in step, a header with any channel below kStrayChannels is valid, and so is
//   a blank line: servers also send streams that nobody set up. Their frames are stepped over. Once
//   out of step only negotiated channels lead back.
// - A message starts at a frame boundary and is delivered at once when its head and as much body as
//   its Content-Length says are there, however many segments they came in. Blank lines before it
//   are ignored.
// - A description that is expected and comes without a Content-Length lasts until the next message
//   starts. It is delivered with what there is of it, and again each time that there is more.
// - Anything else is skipped byte by byte and counted, up to the next frame or the next "RTSP/1."
//   of an answer. Without channels (media over UDP) the stream is messages only.
// - A message beyond the named maxima is counted and its head skipped.
//
// A frame or message that lies whole in what Add is given is delivered from there without a copy.
// Only an unfinished tail is kept, and from the next bytes only as many are added to it as finish
// it.
//
// Threads: Add and Reset belong to the thread that reads the connection; SetChannels,
// ExpectDescription and the counters to any.
class RTSPDemultiplexer {
 public:
  static constexpr std::size_t kMaxHead = 65536;
  static constexpr std::size_t kMaxBody = 262144;
  static constexpr int kStrayChannels = 16;  // the ids that servers number their streams with

  // Receives what was cut out, in the order of the stream, on the thread that calls Add. The bytes
  // are valid during the call only. An implementation may call SetChannels, but neither Add nor
  // Reset.
  class Sink {
   public:
    virtual ~Sink() = default;
    // `frame` is the packet with its four-byte prefix; `type` is the index of its channel.
    virtual void OnInterleavedPacket(int type, std::span<const std::uint8_t> frame) = 0;
    // One whole message, head and body.
    virtual void OnMessage(std::string_view message) = 0;
    // A description of unknown length as far as it has come: first with `grown` false, then with
    // more of it behind the same head.
    virtual void OnUnendedMessage(std::string_view message, bool grown) = 0;
  };

  explicit RTSPDemultiplexer(Sink& sink);  // the sink outlives the demultiplexer

  // The channel ids by type, -1 for none; in force from the next frame on, which sees all that its
  // caller did before. All are -1 at first.
  void SetChannels(const RTSPStreamChannels& ids);

  void SetPrompt(bool prompt) { prompt_ = prompt; }  // before the first bytes

  // Whether the next good answer has a description behind it.
  void ExpectDescription(bool expect) {
    descriptionExpected_.store(expect, std::memory_order_relaxed);
  }

  void Add(std::span<const std::uint8_t> data);

  // Forgets the unfinished tail and the channels, for a new connection. The counters go on.
  void Reset();

  // Bytes that belonged to no frame and no message, and messages beyond the maxima (their heads
  // count as skipped bytes as well).
  std::uint64_t SkippedBytes() const { return skipped_.load(std::memory_order_relaxed); }
  std::uint64_t OversizeMessages() const { return oversize_.load(std::memory_order_relaxed); }
  // Frames of channels that nobody set up.
  std::uint64_t StrayFrames() const { return stray_.load(std::memory_order_relaxed); }

 private:
  // What to do with the bytes at the current position: go on behind `consumed` of them, or, when it
  // is 0, wait until `least` bytes are there; up to `most` can be made use of.
  struct Step {
    std::size_t consumed = 0;
    std::size_t least = 0;
    std::size_t most = 0;
  };

  std::size_t Parse(std::span<const std::uint8_t> data);
  Step ParseFrame(std::span<const std::uint8_t> rest, const RTSPStreamChannels& ids);
  Step ParseMessage(std::span<const std::uint8_t> rest, bool interleaved);
  Step ParseUnended(std::string_view text, std::size_t head);
  Step Skip(std::span<const std::uint8_t> rest, bool interleaved);
  void Append(std::span<const std::uint8_t> data);
  RTSPStreamChannels Channels() const;

  Sink& sink_;
  std::atomic<std::uint64_t> channels_;  // the six ids as 10-bit numbers
  std::atomic<bool> descriptionExpected_{false};
  std::atomic<std::uint64_t> skipped_{0};
  std::atomic<std::uint64_t> oversize_{0};
  std::atomic<std::uint64_t> stray_{0};

  // Room for the largest message; a frame with the header behind it is smaller. Nothing else is
  // ever kept, so that there is nothing to discard, however much arrives. Pages come with use.
  static constexpr std::size_t kTailSize = kMaxHead + kMaxBody;
  std::unique_ptr<std::uint8_t[]> tail_;
  std::size_t tailSize_ = 0;
  Step wanted_;  // of the tail

  bool prompt_ = false;
  bool inStep_ = true;            // the position is a boundary, not inside skipped data
  std::size_t headSearched_ = 0;  // bytes from the position known to hold no end of a head
  std::size_t noMessage_ = 0;     // bytes from the position known to start no message
  std::size_t unended_ = 0;       // bytes of an unended message that were delivered
};

}  // namespace cms
