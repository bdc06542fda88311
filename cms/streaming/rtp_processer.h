// RTPProcesserBase: what all RTP payload depacketizers share.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "cms/live/media/frame_type.h"
#include "cms/live/media/input_padding.h"
#include "cms/runtime/api.h"

// Turns the RTP packets of one media stream (RFC 3550) into whole frames. Each packet goes to
// ProcessData; the packet that ends a frame has it handed to the sink, inside that call.
// Frames are assembled in place in a buffer that is allocated once.
//
// After construction and after a lost packet, packets are dropped up to and including the end of
// the current frame; reception resumes with the first packet behind a frame end that FindIFrame
// accepts. A damaged, unsupported or oversize frame is dropped in the same way.
//
// Threads: the receiving thread of the stream drives the object and runs the sink. The owner
// sets sink and parameter sets before the first packet. Members that say so may be called from
// any thread. Packets are only read; they need to live only during the call.
class CMS_API RTPProcesserBase {
 public:
  // Where finished frames go. `frame` stays valid during the call only. kFrontRoom bytes in front
  // of it are the sink's to write (a frame header goes there without the frame being copied), and
  // kTailRoom bytes behind it are zero (bit readers of decoders look past the end). Its type is
  // what GetFrameData of the depacketizer says, which is asked once.
  class Sink {
   public:
    virtual void OnFrame(RTPProcesserBase& depacketizer, std::span<std::uint8_t> frame) = 0;

   protected:
    ~Sink() = default;
  };
  // The same as a function with a context.
  using FrameCallback = void (*)(void* context, void* frame, int length);

  static constexpr int kFrameCapacity = 512000;  // longest frame, inserted headers included
  static constexpr int kFrontRoom = 128;
  static constexpr int kTailRoom = cms::kInputPadding;
  static constexpr int kMinFrameLength = 21;  // shorter frames are dropped
  static constexpr int kMaxMetadata = 256;

  virtual ~RTPProcesserBase();
  RTPProcesserBase(const RTPProcesserBase&) = delete;
  RTPProcesserBase& operator=(const RTPProcesserBase&) = delete;

  // One RTP packet with its header. 1 when it completed a frame that the sink was given, else
  // 0. Padding (RFC 3550, 5.1) is taken off; lengths inside the packet that lie fail it.
  virtual int ProcessData(void* packet, int length);

  // Sets the frame type of a finished frame, a cms::FrameType. `length` is not read; the caller
  // owes as many readable bytes as the codec's class says.
  virtual void GetFrameData(void* frame, int* length, int* frameType) = 0;

  // What ProcessData does with a packet in front of its payload: statistics, sequence and losses.
  // Returns the payload, empty when there is none to use. For streams whose packets are handed on
  // one by one, instead of ProcessData.
  std::span<const std::uint8_t> NotePacket(std::span<const std::uint8_t> packet);

  // The steps that a codec supplies; `headerSize` is the RTP header's and smaller than `length`.
  // AddDataToFrameBuff appends the payload to the frame: 0 when it does not fit or is malformed.
  virtual int AddDataToFrameBuff(void* packet, int length, unsigned int headerSize) = 0;
  // 1 when a key frame starts with this packet, 0 when not, kAskNextPacket when the packet says
  // nothing, so that the question goes to the packet behind it.
  virtual int FindIFrame(void* packet, int length, unsigned int headerSize) = 0;
  // Non-zero when the packet ends a frame.
  virtual int IsEndOfFrame(void* packet, int length, unsigned int headerSize) = 0;

  static constexpr int kAskNextPacket = -1;

  // Null until set: frames are dropped then. The sink and the context are the owner's.
  void SetSink(Sink* sink) { sink_ = sink; }
  void SetFrameCallback(FrameCallback callback, void* context);

  // Drops the frame in progress; whether packets are being discarded stays as it is.
  void ResetFrameBuffer();

  bool IsVideo() const { return isVideo_; }
  void SetSiteNum(int site) { siteNumber_ = site; }
  int GetSiteNum() const { return siteNumber_; }

  // Sequence number of the last packet (not kept for MJPEG). Any thread.
  unsigned short GetLastSeqNum() const { return lastSequence_.load(std::memory_order_relaxed); }

  // RTP time of the packet in hand, and so of the frame that it ends. Receiving thread.
  std::uint32_t LastTimestamp() const { return lastTimestamp_; }

  // Loss counters of the receiver reports: total, and since ResetLostCount. The distance of the
  // first packet's random number from 0 counts as lost; a gap across 65535 -> 0 counts one too
  // few; a late packet counts almost a whole round. Kept so since peers know them so. Any thread.
  unsigned int GetTotalLostCount() const { return totalLost_.load(std::memory_order_relaxed); }
  unsigned int GetLostCount() const { return recentLost_.load(std::memory_order_relaxed); }
  void ResetLostCount();
  // Fraction of packets lost since ResetLostCount or since the first packet, in 1/256, at most 255
  // (RFC 3550, 6.4.1).
  unsigned char GetLostFraction() const;

  // For people: packets missing between the first one and now, right across the wrap; late packets,
  // repetitions and a sender that starts its numbers anew count nothing. Kept for every codec. Any
  // thread.
  unsigned int GetMissingPacketCount() const { return missing_.load(std::memory_order_relaxed); }

  // Frames that would have passed kFrameCapacity; and all frames dropped whose end was seen. Any
  // thread.
  unsigned int GetOversizeFrameCount() const { return oversize_.load(std::memory_order_relaxed); }
  unsigned int GetDroppedFrameCount() const { return dropped_.load(std::memory_order_relaxed); }

  // Packets were left out on purpose: what lies in front of the next one does not count as missing
  // nor into the fraction. Receiving thread.
  void NoteBreak() { anyPacket_ = false; }

  // Byte-rate and loss statistics of the last whole second, off by default. Switching on clears
  // them. Any thread. The loss rate is in percent.
  void SetIsBPSCounting(bool on);
  unsigned int GetStreamBytesPerSecond() const;
  double GetStreamLossRate() const;

  // Metadata: the last H.264 SEI NAL unit. GetMetadata copies it to *dest, where the caller owes
  // kMaxMetadata bytes. SetMetadada refuses more than kMaxMetadata bytes with 0. Receiving thread.
  int GotAMetadata() const { return metadataLength_ > 0 ? 1 : 0; }
  void GetMetadata(void** dest, unsigned int* length) const;
  int SetMetadada(void* data, unsigned int length);
  void ResetMetadada() { metadataLength_ = 0; }

 protected:
  // Without the sequence check gaps neither discard nor count as lost.
  explicit RTPProcesserBase(bool isVideo, bool checksSequence = true);

  // 0 when the frame would pass kFrameCapacity; the frame is then as it was.
  int AppendDataToFrameBuff(const void* data, int length);
  // Copies in front of the byte at `offset`; 0 when that lies beyond the data or the frame would
  // pass kFrameCapacity. At offset 0 the frame's start moves back as long as there is room, and no
  // byte of the frame moves.
  int InsertDataToFrameBuff(const void* data, int offset, int length);
  // Size of the RTP header with contributing sources and extension (RFC 3550, 5.1 and 5.3.1). Not
  // smaller than `length` when the header does not lie in the packet. `length` is 12 or more.
  static unsigned int GetRTPHeaderSize(const void* packet, int length);

  const unsigned char* FrameData() const { return frame_; }
  int FrameLength() const { return frameLength_; }

  static bool HasMarker(const void* packet) {
    return (static_cast<const unsigned char*>(packet)[1] & 0x80) != 0;
  }

 private:
  static constexpr std::size_t kAlignment = 64;
  // Room for headers inserted at the front, the JPEG header of at most 611 bytes among them.
  static constexpr std::size_t kInsertRoom = 640;
  static constexpr std::size_t kFrameOffset = kFrontRoom + kInsertRoom;
  static_assert(kFrameOffset % kAlignment == 0);

  struct FreeBuffer {
    void operator()(unsigned char* buffer) const;
  };

  class CallbackSink final : public Sink {
   public:
    void OnFrame(RTPProcesserBase&, std::span<std::uint8_t> frame) override {
      callback(context, frame.data(), static_cast<int>(frame.size()));
    }
    FrameCallback callback = nullptr;
    void* context = nullptr;
  };

  // Byte-rate statistics. Written by the receiving thread, read by any; touched while on only.
  struct Statistics {
    std::atomic<bool> on{false};
    std::atomic<bool> restart{false};
    std::atomic<unsigned int> bytesPerSecond{0};
    std::atomic<double> lossRate{0.0};
    // The receiving thread's own.
    std::uint64_t intervalStart = 0;
    unsigned int intervalBytes = 0;
    unsigned int intervalPackets = 0;
    std::uint16_t intervalSequence = 0;
  };

  void Count(std::uint16_t sequence, unsigned int length);
  void NoteSequence(std::uint16_t sequence);

  // What every packet touches comes first.
  unsigned char* frame_ = nullptr;  // start of the frame in progress
  int frameLength_ = 0;
  int capacity_ = 0;  // kFrameCapacity, 0 when there was no memory for the buffer
  bool discard_ = true;
  bool boundary_ = false;  // a frame end was seen while discarding: the next packet may start one
  bool anyPacket_ = false;
  const bool isVideo_;
  const bool checksSequence_;
  std::uint16_t observedSequence_ = 0;
  std::uint32_t lastTimestamp_ = 0;
  std::atomic<std::uint16_t> lastSequence_{0};
  Statistics statistics_;

  Sink* sink_ = nullptr;
  CallbackSink callback_;
  std::unique_ptr<unsigned char, FreeBuffer> buffer_;
  std::atomic<unsigned int> totalLost_{0};
  std::atomic<unsigned int> recentLost_{0};
  std::atomic<std::uint16_t> resetSequence_{0};
  std::atomic<unsigned int> notLost_{0};  // of recentLost_: what lies in front of a first packet
  std::atomic<unsigned int> missing_{0};
  std::atomic<unsigned int> oversize_{0};
  std::atomic<unsigned int> dropped_{0};
  int siteNumber_ = 0;
  int metadataLength_ = 0;
  unsigned char metadata_[kMaxMetadata];
};

inline int RTPProcesserBase::AppendDataToFrameBuff(const void* data, int length) {
  if (length > capacity_ - frameLength_) {
    oversize_.fetch_add(1, std::memory_order_relaxed);
    return 0;
  }
  if (length > 0) {
    std::memcpy(frame_ + frameLength_, data, static_cast<std::size_t>(length));
    frameLength_ += length;
  }
  return 1;
}
