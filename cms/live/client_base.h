// CMSClientBase: one live connection to one site, and what happens to every frame of it.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cms/live/audio_endpoint.h"
#include "cms/live/channel_data.h"
#include "cms/live/connection_status.h"
#include "cms/live/fps_report.h"
#include "cms/live/reconnect_policy.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

// What GetFrameData copies: totals of the connection since the client was made, over all
// reconnections.
struct CMSFrameData {
  std::uint64_t videoFrames = 0;
  std::uint64_t keyFrames = 0;
  std::uint64_t audioFrames = 0;
  std::uint64_t bytes = 0;  // payload bytes of video and audio frames
  std::uint64_t lostPackets = 0;
  std::uint64_t oversizeFrames = 0;  // dropped: over 512,000 bytes
  std::uint32_t openMs = 0;          // the last opening: from OpenStream to the answer to PLAY
  std::uint32_t firstFrameMs = 0;    // from OpenStream to the first frame handed on, 0: none yet
  std::uint32_t firstPictureMs = 0;  // from OpenStream to the first decoded picture, 0: none yet
};

// The abstract base of the streaming clients. They negotiate and receive; this class counts every
// frame, hands it to recording and decoding, and answers the client application's questions.
//
// Life: construct, SetConfig, AllocChannelData, OpenStream, Play ... StopPlay, CloseStream,
// destroy. From a successful Play (or KeepOpen) until StopPlay or CloseStream the site keeps
// itself: it sends keep-alives, notices a dead stream and opens it again as its ReconnectPolicy
// says.
//
// Threads: frames arrive on the receiving thread of the stream (OnGet..., OnRecord...,
// OnDecode...); keeping runs on the library's site threads; everything else is called by the client
// application from any thread, except that a stream is not opened, closed or destroyed from inside
// a frame callback: closing waits for the callback to end.
//
// Per-channel members ignore channels beyond the channel count (result 0). Results are 1 (or
// non-zero) for success and 0 for failure.
class CMS_API CMSClientBase {
 public:
  CMSClientBase();
  virtual ~CMSClientBase();
  CMSClientBase(const CMSClientBase&) = delete;
  CMSClientBase& operator=(const CMSClientBase&) = delete;

  virtual int SetConfig(void* config) = 0;
  virtual int Play() = 0;
  virtual int Pause() = 0;
  virtual int Resume() = 0;
  virtual int StopPlay() = 0;
  virtual int ChangeRecordFile() = 0;
  virtual int ChangeRecordPath(const wchar_t* path) = 0;
  virtual void SetMustDecode(int decode);
  virtual void AddChannelSerialNum(unsigned channel);
  virtual unsigned GetChannelSerialNum(unsigned channel);
  virtual void LockImage(unsigned channel);
  virtual int LockImageTest(unsigned channel);
  virtual void UnlockImage(unsigned channel);
  virtual void SetDecoder(unsigned channel, DECODER_PARAMETER_TYPE type, const void* value);
  virtual int GetDewarpMode(unsigned channel);
  virtual void GetPicture(unsigned channel, void** picture, MEM_TYPE* type);
  virtual int GetWidthAndHeight(unsigned channel, unsigned* width, unsigned* height);
  virtual std::int64_t GetTime(unsigned channel);
  virtual int GetVideoType(unsigned channel);
  virtual int GetAudioType();
  // Decoding starts with the next key frame, also on a channel that decodes already. The second
  // argument is not used.
  virtual void EnableDecode(unsigned channel, int unused);
  virtual void DisableDecode(unsigned channel);
  virtual int IsDecoingEnable(unsigned channel);
  virtual void SetAudioOn(unsigned channel);
  virtual void SetAudioOff(unsigned channel);
  virtual int IsPlayAudio(unsigned channel);
  virtual void EnableAudio(unsigned channel);
  virtual void DisableAudio(unsigned channel);
  virtual int IsAudioEnable(unsigned channel);
  virtual void SetCameraTitle(unsigned channel, std::string& title);
  virtual int GetCameraTitle(unsigned channel, std::string* title);
  virtual int SendAudioData(unsigned char* data, int length);
  virtual int GetJpegRawDataLen(unsigned channel);
  virtual int OpenStream();
  virtual int CloseStream();
  virtual void ConvertMetadataToDRVHeader(void* metadata, unsigned length, void* header,
                                          unsigned headerLength);

  // Every frame goes through these, on the receiving thread. The buffers are the stream's and valid
  // during the call only; CMSDecoder::kInputPadding bytes behind a video frame are readable.
  virtual void OnGetVideoFrame(void* header, int headerSize, void* data, int size, unsigned channel,
                               int frameType);
  virtual void OnGetAudioFrame(void* header, int headerSize, void* data, int size,
                               unsigned channel);
  virtual void OnRecordVideoFrame(void* header, int headerSize, void* data, int size,
                                  unsigned channel);
  virtual void OnRecordAudioFrame(void* header, int headerSize, void* data, int size,
                                  unsigned channel);
  virtual void OnDecodeVideoFrame(void* data, int size, unsigned channel, int frameType);
  virtual void OnDecodeAudioFrame(void* data, int size, unsigned channel);
  virtual int AllocChannelData(unsigned count);
  virtual int CreateSocket();
  virtual int DestroySocket();

  // --- Keeping the stream ---------------------------------------------------------------------
  void SetReconnectPolicy(const ReconnectPolicy& policy);
  // Opens and plays in the background and keeps trying as the policy says; returns at once. Watch
  // GetConnectionStatus. 0 when the stream is kept already.
  int KeepOpen();
  ConnectionStatus GetConnectionStatus() const;

  // --- Frames and pictures --------------------------------------------------------------------
  // Copies at most `size` bytes of a CMSFrameData; returns the bytes copied.
  int GetFrameData(void* buffer, int size) const;
  double GetFps() const;
  double GetAvgFps() const;
  double GetKbps() const;
  // Frames decoded, skipped (decoding off, queue full or no decoder) and failed; any may be null.
  int GetDecodeStatus(unsigned channel, unsigned* decoded, unsigned* notDecoded,
                      unsigned* errors) const;
  int IsClientPlaying() const;

  // The newest picture as BGRA rows without gaps at the display size, nullptr while there is none.
  // It stays valid, and decoding of the channel waits, until unlockDecodedImage, which is owed on
  // the same thread after nullptr too.
  std::uint8_t* lockDecodedImage(unsigned channel, tagSIZE* size);
  void unlockDecodedImage(unsigned channel);

  // A decode thread for each channel, so that slow decoding never delays reception; off by default.
  // Set before decoding starts.
  void SetThreadedDecode(bool threaded);

  // --- Sound ----------------------------------------------------------------------------------
  // Where the audio of channels with audio enabled and on goes; nullptr: nowhere. The player is
  // the caller's, started and stopped by it, and outlives its use here: after SetAudioPlayer of
  // another one it is not called any more. It is told the stream's format whenever that changes.
  void SetAudioPlayer(cms::AudioPlayer* player);
  // The stream's audio, as far as it is known; 0 when there is none.
  int GetAudioFormat(tCMSAudioPlayerConfig* config) const;

  // Captures a microphone and gives each block to SendAudioData, on the capture's thread. 0 when
  // one is captured already, or the format or the device cannot be used.
  int OnStartAudioRecorder(const tCMSAudioPlayerConfig& config);
  // Not from inside SendAudioData.
  void OnStopAudioRecorder();
  int IsStartingAudioRecorder() const;

  // Writes the recording type tag of the site type and the video type of channel 0 into tag[0..3];
  // combinations without a tag leave the bytes as they are.
  void GetDRVTypeHeader(unsigned char* tag);

  void SetMetadata(unsigned channel, const void* data, unsigned length);
  unsigned GetMetadata(unsigned channel, void* destination, unsigned size);
  unsigned GetMetadataSerialNum(unsigned channel);
  void AddMetadataSerialNum(unsigned channel);
  void MetadataLockerLock(unsigned channel);
  void MetadataLockerUnlock(unsigned channel);
  void SetFisheyeInfo(const stFisheyeParameter* parameter);

 protected:
  // --- For the streaming clients --------------------------------------------------------------
  // Opening and playing, and ending both, without touching the keeping. Called with no lock held,
  // never at the same time. OpenForKeeping reports its failure through SetFault.
  virtual int OpenForKeeping();
  virtual void CloseForKeeping();
  // Between the two, a running OpenForKeeping returns soon and a new one fails at once. Called in
  // pairs, from any thread.
  virtual void CancelOpening();
  virtual void ResumeOpening();
  // Keeps the session alive when it is time; returns the milliseconds until it is to be called
  // again. kNone means that all is well; any other fault ends the stream.
  virtual ConnectionFault KeepAlive(std::uint64_t now, std::uint64_t* nextInMs);
  // Counts packets of the stream (not only frames): the watchdog looks whether it moves.
  virtual std::uint64_t PacketCount() const;
  virtual std::uint64_t LostPacketCount() const;
  virtual std::uint64_t OversizeFrameCount() const;

  void StartKeeping();
  // After it no turn of the keeping runs or starts.
  void StopKeeping();
  // Asks for a turn of the keeping at once: an answer came, or the connection broke.
  void PokeKeeping();

  void SetFault(ConnectionFault fault, std::string detail);
  void SetState(ConnectionState state);
  ReconnectPolicy GetPolicy() const;
  void MarkOpening();  // the start of open and first-frame times
  void MarkOpened();

  // What the audio blocks are from now on; codec CMS_CODEC_NONE: there are none.
  void SetAudioFormat(const tCMSAudioPlayerConfig& config);

  CMSChannelDataBase* Channel(unsigned channel) const {
    return channel < channelCount_ && channel < channels_.size() ? channels_[channel].get()
                                                                 : nullptr;
  }
  unsigned ChannelCount() const { return channelCount_; }
  int MustDecode() const { return mustDecode_.load(std::memory_order_relaxed); }

  mutable CMSCritical lock_;  // the client's lock: configuration and life cycle
  std::atomic<int> playing_{0};
  int siteType_ = 0;
  int videoType_ = 0;
  std::atomic<int> audioType_{0};
  CMSFpsReport fpsReport_;
  bool threadedDecode_ = false;

 private:
  class Keeper;

  unsigned channelCount_ = 0;
  std::vector<std::unique_ptr<CMSChannelDataBase>> channels_;
  std::atomic<int> mustDecode_{0};
  stFisheyeParameter fisheye_;

  mutable CMSCritical audioLock_;  // held while the player is called
  cms::AudioPlayer* audioPlayer_ CMS_GUARDED_BY(audioLock_) = nullptr;
  tCMSAudioPlayerConfig playedFormat_ CMS_GUARDED_BY(audioLock_){.codecId = CMS_CODEC_NONE};
  mutable CMSCritical recorderLock_;  // held while a capture is started or stopped
  std::unique_ptr<cms::AudioCapture> audioCapture_ CMS_GUARDED_BY(recorderLock_);

  std::atomic<std::uint64_t> videoFrames_{0};
  std::atomic<std::uint64_t> keyFrames_{0};
  std::atomic<std::uint64_t> audioFrames_{0};
  std::atomic<std::uint64_t> bytes_{0};
  std::atomic<std::uint64_t> openingTick_{0};
  std::atomic<std::uint32_t> openMs_{0};
  std::atomic<std::uint64_t> firstFrameTick_{0};

  mutable CMSCritical statusLock_;
  ConnectionStatus status_ CMS_GUARDED_BY(statusLock_);
  ReconnectPolicy policy_ CMS_GUARDED_BY(statusLock_);

  std::unique_ptr<Keeper> keeper_;
};
