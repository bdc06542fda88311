// What stands behind CMSDecoder.
#pragma once

#include <atomic>
#include <memory>

#include "cms/live/decoder.h"
#include "cms/live/internal/decode_queue.h"
#include "cms/live/media/internal/fisheye_picture.h"
#include "cms/live/media/internal/picture_converter.h"
#include "cms/live/media/internal/video_codec.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/named_thread.h"
#include "cms/runtime/thread_annotations.h"

// Locks, in the order in which they nest: controlLock_ (starting and ending the thread),
// decodeLock_ (one frame after the other, from its data to its pixels), lock_ (the implementation
// lock: the converted picture and all sizes, where the drawing thread waits), codecLock_ (the
// codec). Nobody who holds codecLock_ waits for lock_: a drawing thread that holds lock_ may reset
// the codec. So a decoded picture is moved out of the codec before it is converted.
class CMSDecoder::Impl {
 public:
  Impl() = default;
  ~Impl();

  int Create(cms::CMSCodecID codec);
  int Reset(cms::CMSCodecID codec, bool sameCodec);
  void Release();
  int IsResetNeeded(tagSIZE size);
  DECODE_RESULT Decode(const unsigned char* data, int length, int* used);

  void SetDisplaySize(tagSIZE size, DisplayCallback callback);
  unsigned char* LockImage(tagSIZE* size);
  void UnlockImage();
  void SetPlanar(bool planar);
  bool LockPlanes(cms::PlanarPicture* picture);
  tagSIZE DecodedSize();

  int StartThread();
  int PutBuffer(const unsigned char* data, int length) { return queue_.Put(data, length) ? 1 : 0; }
  void EndThread();
  int IsThreadAlive() const { return running_.load(std::memory_order_relaxed) ? 0 : 1; }
  void SetResultCallback(ResultCallback callback, void* context);

  template <typename Change>
  void ChangeFisheye(const Change& change) {
    const ScopeLock guard(lock_);
    change(fisheye_);
    look_.Set(fisheye_);
  }
  int DewarpMode();

 private:
  struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
  };

  void Close() CMS_REQUIRES(lock_, codecLock_);
  cms::VideoCodec::Result Run(const unsigned char* data, int length, int* used)
      CMS_REQUIRES(decodeLock_);
  DECODE_RESULT Show(DisplayCallback& callback) CMS_REQUIRES(decodeLock_);
  bool Convert(AVFrame& frame, const tagSIZE& size) CMS_REQUIRES(lock_);
  void DecodeQueued(ResultCallback callback, void* context);

  CMSCritical controlLock_;
  CMSCritical decodeLock_;
  CMSCritical lock_;
  CMSCritical codecLock_;

  cms::VideoCodec codec_ CMS_GUARDED_BY(codecLock_);
  std::atomic<unsigned> opening_{0};  // counts closings; written under both, read under either

  // The picture between its decoding and its conversion.
  std::unique_ptr<AVFrame, FreeFrame> frame_ CMS_GUARDED_BY(decodeLock_){av_frame_alloc()};
  unsigned frameOpening_ CMS_GUARDED_BY(decodeLock_) = 0;

  cms::PictureConverter picture_ CMS_GUARDED_BY(lock_);
  bool planar_ CMS_GUARDED_BY(lock_) = false;
  std::unique_ptr<AVFrame, FreeFrame> kept_ CMS_GUARDED_BY(lock_){av_frame_alloc()};
  const AVFrame* planes_ CMS_GUARDED_BY(lock_) = nullptr;  // kept_, or what look_ made of it
  tagSIZE decoded_ CMS_GUARDED_BY(lock_);
  tagSIZE display_ CMS_GUARDED_BY(lock_);
  DisplayCallback displayCallback_ CMS_GUARDED_BY(lock_) = nullptr;
  cms::FisheyeSettings fisheye_ CMS_GUARDED_BY(lock_);
  cms::FisheyePicture look_ CMS_GUARDED_BY(lock_);

  cms::DecodeQueue queue_;
  cms::NamedThread thread_ CMS_GUARDED_BY(controlLock_);
  ResultCallback resultCallback_ CMS_GUARDED_BY(controlLock_) = nullptr;
  void* resultContext_ CMS_GUARDED_BY(controlLock_) = nullptr;
  std::atomic<bool> running_{false};
};
