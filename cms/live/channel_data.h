// CMSChannelDataBase: what a site client keeps for one of its channels.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cms/live/decoder.h"
#include "cms/live/media/codec_id.h"
#include "cms/live/media/fisheye.h"
#include "cms/live/media/size.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

// Where the memory that GetPicture hands out lies.
enum MEM_TYPE : int { MEM_TYPE_NONE = 0, MEM_TYPE_SYSTEM = 1 };

// The state of one channel: its decoder, switches, counters, title and metadata. The receiving
// thread feeds frames; the client application's threads read and switch. Switches and counters are
// atomics; the title and the metadata each have a lock; the decoder has its own.
class CMS_API CMSChannelDataBase {
 public:
  static constexpr int kEventKinds = 16;

  CMSChannelDataBase();
  ~CMSChannelDataBase();
  CMSChannelDataBase(const CMSChannelDataBase&) = delete;
  CMSChannelDataBase& operator=(const CMSChannelDataBase&) = delete;

  // --- Decoding -------------------------------------------------------------------------------
  void SetVideoType(CMSCodecID codec) { codec_.store(codec, std::memory_order_relaxed); }
  int GetVideoType() const;  // a CMSVideoType

  // Opens the decoder for the codec; 1 on success. MPEG-4 has no decoder here: 0.
  int InitialCodec(CMSCodecID codec);
  void ReleaseCodec();  // ends the decode thread and closes the decoder

  // Asks for the next key frame and opens the same codec anew (H.264 and MJPEG); 1 when open.
  int ReInitialCodec();

  // A thread of its own for decoding (off by default): DecodeFrame then only queues a copy of the
  // frame, so that a slow decoder never holds up reception. Takes effect when the codec is opened.
  void SetThreadedDecode(bool threaded) { threaded_.store(threaded, std::memory_order_relaxed); }

  // Returns 1 for a picture, 0 when none came out yet, -1 on an error or without an open decoder.
  // The caller owes cms::kInputPadding readable bytes behind the data. With a decode thread
  // 0 means queued; a full queue drops the frame and waits for the next key frame.
  int DecodeFrame(const std::uint8_t* data, int size);

  void SetDisplaySize(const tagSIZE& size);
  // See CMSDecoder::LockDecodedImage: unlock also after nullptr.
  std::uint8_t* LockDecodedImage(tagSIZE* size);
  void UnlockDecodedImage();
  void SetDecoder(DECODER_PARAMETER_TYPE type, const void* value);
  void GetPicture(void** picture, MEM_TYPE* type);  // none here; clients derive
  int GetJpegRawDataLen() const { return 0; }

  void EnableDecode();  // also makes it wait for a key frame
  void DisableDecode() { decodeEnabled_.store(0, std::memory_order_relaxed); }
  int IsDecodeEnabled() const { return decodeEnabled_.load(std::memory_order_relaxed); }
  void SetFindNextIFrameStatus(int wait) { findIFrame_.store(wait, std::memory_order_relaxed); }
  int IsFindNextIFrame() const { return findIFrame_.load(std::memory_order_relaxed); }
  bool WaitsForKeyFrame() const {
    return IsFindNextIFrame() != 0 || secondWait_.load(std::memory_order_relaxed) != 0;
  }

  void SetVideoWidthAndHeight(unsigned width, unsigned height);
  void GetVideoWidthAndHeight(unsigned* width, unsigned* height) const;
  unsigned GetDecodedCount() const { return decoded_.load(std::memory_order_relaxed); }
  unsigned GetNotDecodedCount() const { return notDecoded_.load(std::memory_order_relaxed); }
  unsigned GetDecodeErrorCount() const { return decodeErrors_.load(std::memory_order_relaxed); }
  void AddNotDecoded() { notDecoded_.fetch_add(1, std::memory_order_relaxed); }
  // The ticks (cms::TickMilliseconds) of the first decoded picture since ForgetFirstPicture and of
  // the last one, 0 before.
  std::uint64_t FirstPictureTick() const { return firstPicture_.load(std::memory_order_relaxed); }
  std::uint64_t LastPictureTick() const { return lastPicture_.load(std::memory_order_relaxed); }
  void ForgetFirstPicture() { firstPicture_.store(0, std::memory_order_relaxed); }

  // --- Counters and time ----------------------------------------------------------------------
  void AddSerialNum() { serial_.fetch_add(1, std::memory_order_relaxed); }
  unsigned GetSerialNum() const { return serial_.load(std::memory_order_relaxed); }
  void SetTime(std::int64_t seconds) { time_.store(seconds, std::memory_order_relaxed); }
  std::int64_t GetTime() const { return time_.load(std::memory_order_relaxed); }

  // --- Audio ----------------------------------------------------------------------------------
  void EnableAudio() { audioEnabled_.store(1, std::memory_order_relaxed); }
  void DisableAudio() { audioEnabled_.store(0, std::memory_order_relaxed); }
  int IsAudioEnable() const { return audioEnabled_.load(std::memory_order_relaxed); }
  void SetAudioOn() { audioOn_.store(1, std::memory_order_relaxed); }
  void SetAudioOff() { audioOn_.store(0, std::memory_order_relaxed); }
  int IsPlayAudio() const { return audioOn_.load(std::memory_order_relaxed); }
  void SetAudioState(int state) { audioState_.store(state, std::memory_order_relaxed); }
  int GetAudioState() const { return audioState_.load(std::memory_order_relaxed); }

  // --- Title, metadata, events ----------------------------------------------------------------
  void SetCameraTitle(const std::string& title);
  void GetCameraTitle(std::string* title) const;
  void SetMetadata(const void* data, unsigned length);
  unsigned GetMetadata(void* destination, unsigned size) const;  // returns the bytes copied
  void AddMetadataSerialNum() { metadataSerial_.fetch_add(1, std::memory_order_relaxed); }
  unsigned GetMetadataSerialNum() const { return metadataSerial_.load(std::memory_order_relaxed); }
  void MetadataLockerLock() CMS_NO_THREAD_SAFETY_ANALYSIS { metadataLock_.Lock(); }
  void MetadataLockerUnlock() CMS_NO_THREAD_SAFETY_ANALYSIS { metadataLock_.UnLock(); }

  void SetRecDuration(unsigned seconds) { duration_.store(seconds, std::memory_order_relaxed); }
  unsigned GetRecDuration() const { return duration_.load(std::memory_order_relaxed); }
  void SetLastEventTime(int kind, std::int64_t seconds);
  // Non-zero when the record duration has passed since the last event of the kind.
  int IsEventUpToDuration(int kind, std::int64_t now) const;

  void LockImage() CMS_NO_THREAD_SAFETY_ANALYSIS { imageLock_.Lock(); }
  void UnlockImage() CMS_NO_THREAD_SAFETY_ANALYSIS { imageLock_.UnLock(); }
  int LockImageTest() CMS_NO_THREAD_SAFETY_ANALYSIS { return imageLock_.LockTest(); }

  // --- Fisheye --------------------------------------------------------------------------------
  int CreateFishEyeManager(const stFisheyeParameter& parameter);  // see CMSDecoder: always fails
  void ReleaseFishEyeManager();
  int GetDewarpMode() const;

 private:
  static void OnThreadResult(void* context, DECODE_RESULT result);
  int CountResult(DECODE_RESULT result);

  CMSCritical decodeLock_;  // feeding, opening and closing the decoder exclude each other
  const std::shared_ptr<CMSDecoder> decoder_;
  std::atomic<bool> decoderOpen_{false};
  std::atomic<bool> threadFailed_{false};  // the decode thread met an error: re-open
  std::atomic<bool> threaded_{false};
  bool threadRuns_ CMS_GUARDED_BY(decodeLock_) = false;
  std::atomic<CMSCodecID> codec_{CMS_CODEC_NONE};
  std::atomic<int> decodeEnabled_{0};
  std::atomic<int> findIFrame_{0};
  std::atomic<int> secondWait_{0};
  std::atomic<unsigned> width_{0};
  std::atomic<unsigned> height_{0};
  std::atomic<unsigned> decoded_{0};
  std::atomic<unsigned> notDecoded_{0};
  std::atomic<unsigned> decodeErrors_{0};
  std::atomic<std::uint64_t> firstPicture_{0};
  std::atomic<std::uint64_t> lastPicture_{0};
  std::atomic<unsigned> serial_{0};
  std::atomic<std::int64_t> time_{0};
  std::atomic<int> audioEnabled_{0};
  std::atomic<int> audioOn_{0};
  std::atomic<int> audioState_{0};
  std::atomic<unsigned> duration_{0};
  std::array<std::atomic<std::int64_t>, kEventKinds> lastEvent_{};

  mutable CMSCritical titleLock_;
  std::string title_ CMS_GUARDED_BY(titleLock_);
  mutable CMSCritical metadataLock_;
  std::vector<std::uint8_t> metadata_ CMS_GUARDED_BY(metadataLock_);
  std::atomic<unsigned> metadataSerial_{0};
  CMSCritical imageLock_;  // guards nothing here: it is lent to the client application
};
