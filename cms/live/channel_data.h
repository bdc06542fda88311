// CMSChannelDataBase: what a site client keeps for one of its channels.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

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
  void SetVideoType(cms::CMSCodecID codec);
  int GetVideoType() const;  // a CMSVideoType

  // Opens the decoder for a video codec; 1 on success.
  int InitialCodec(cms::CMSCodecID codec);
  void ReleaseCodec();  // ends the decode thread and closes the decoder

  // Asks for the next key frame and opens the same codec anew; 1 when open.
  int ReInitialCodec();

  // A thread of its own for decoding (off by default): DecodeFrame then only queues a copy of the
  // frame, so that a slow decoder never holds up reception. Takes effect when the codec is opened.
  void SetThreadedDecode(bool threaded);

  // Returns 1 for a picture, 0 when none came out yet, -1 on an error or without an open decoder.
  // The caller owes cms::kInputPadding readable bytes behind the data. With a decode thread
  // 0 means queued; a full queue drops the frame and waits for the next key frame.
  int DecodeFrame(const std::uint8_t* data, int size);

  void SetDisplaySize(const tagSIZE& size);
  // See CMSDecoder::LockDecodedImage: unlock also after nullptr.
  std::uint8_t* LockDecodedImage(tagSIZE* size);
  void UnlockDecodedImage();
  bool LockDecodedPlanes(cms::PlanarPicture* picture);  // unlock with UnlockDecodedImage
  void SetDecoder(DECODER_PARAMETER_TYPE type, const void* value);
  void GetPicture(void** picture, MEM_TYPE* type);  // none here; clients derive
  int GetJpegRawDataLen() const;

  void EnableDecode();  // also makes it wait for a key frame
  void DisableDecode();
  int IsDecodeEnabled() const;
  void SetFindNextIFrameStatus(int wait);
  int IsFindNextIFrame() const;
  bool WaitsForKeyFrame() const;

  void SetVideoWidthAndHeight(unsigned width, unsigned height);
  void GetVideoWidthAndHeight(unsigned* width, unsigned* height) const;
  unsigned GetDecodedCount() const;
  unsigned GetNotDecodedCount() const;
  unsigned GetDecodeErrorCount() const;
  void AddNotDecoded();
  // The ticks (cms::TickMilliseconds) of the first decoded picture since ForgetFirstPicture and of
  // the last one, 0 before.
  std::uint64_t FirstPictureTick() const;
  std::uint64_t LastPictureTick() const;
  void ForgetFirstPicture();

  // --- Counters and time ----------------------------------------------------------------------
  void AddSerialNum();
  unsigned GetSerialNum() const;
  void SetTime(std::int64_t seconds);
  std::int64_t GetTime() const;

  // --- Audio ----------------------------------------------------------------------------------
  void EnableAudio();
  void DisableAudio();
  int IsAudioEnable() const;
  void SetAudioOn();
  void SetAudioOff();
  int IsPlayAudio() const;
  void SetAudioState(int state);
  int GetAudioState() const;

  // --- Title, metadata, events ----------------------------------------------------------------
  void SetCameraTitle(const std::string& title);
  void GetCameraTitle(std::string* title) const;
  void SetMetadata(const void* data, unsigned length);
  unsigned GetMetadata(void* destination, unsigned size) const;  // returns the bytes copied
  void AddMetadataSerialNum();
  unsigned GetMetadataSerialNum() const;
  void MetadataLockerLock();
  void MetadataLockerUnlock();

  void SetRecDuration(unsigned seconds);
  unsigned GetRecDuration() const;
  void SetLastEventTime(int kind, std::int64_t seconds);
  // Non-zero when the record duration has passed since the last event of the kind.
  int IsEventUpToDuration(int kind, std::int64_t now) const;

  void LockImage();
  void UnlockImage();
  int LockImageTest();

  // --- Fisheye --------------------------------------------------------------------------------
  int CreateFishEyeManager(const stFisheyeParameter& parameter);  // see CMSDecoder
  void ReleaseFishEyeManager();
  int GetDewarpMode() const;

 private:
  struct CMS_HIDDEN State;
  const std::unique_ptr<State> state_;
};
