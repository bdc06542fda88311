// CMSDecoder: compressed frames of one channel become BGRA pictures at the size of its display.
#pragma once

#include <memory>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/fisheye.h"
#include "cms/live/media/input_padding.h"
#include "cms/live/media/planar_picture.h"
#include "cms/live/media/size.h"
#include "cms/runtime/api.h"

struct IDirect3DSurface9;  // the display's surface; on this platform there is none

enum DECODE_RESULT : int {
  DECODE_RESULT_PICTURE = 0,     // a picture was decoded and converted
  DECODE_RESULT_ERROR = 1,       // also once when the size of the pictures changes
  DECODE_RESULT_NO_PICTURE = 2,  // the data was taken, no picture came out yet
};

// Decodes MJPEG, H.264, H.265 and MPEG-4; any other codec gives a decoder that stays closed.
//
// Threads: any thread may call any member. Decoding calls exclude one another, and meet a drawing
// thread only on the implementation lock, which Decode takes for the conversion of a picture and
// LockDecodedImage holds until UnlockDecodedImage: a viewer waits for one conversion, or
// while another thread opens a codec for the frame that is being decoded, and decoding waits for a
// viewer. Between Lock... and Unlock... a
// thread may call the other members, but not Decode while another thread decodes, and neither
// StartThread nor EndThread.
//
// Colours: BGRA by the matrix and range that the stream names, as ffmpeg shows them; without a name
// BT.601, JPEGs full range, others limited. Nothing is written to standard error about a damaged
// stream: on the first opening of a codec the codec library's log callback is replaced by one that
// leaves this library's calls out. A client application that has a callback of its own
// (av_log_set_callback) sets it after that.
class CMS_API CMSDecoder {
 public:
  // Bytes behind the data of Decode that must be readable; their values do not matter.
  static constexpr int kInputPadding = cms::kInputPadding;

  // Runs on the decode thread after each frame with no lock held. It must not call StartThread or
  // EndThread, nor destroy the decoder; Reset and the other members are allowed.
  using ResultCallback = void (*)(void* context, DECODE_RESULT result);

  // Called after each converted picture, on the decoding thread with no lock held: time to draw.
  using DisplayCallback = void (*)(IDirect3DSurface9* surface);  // surface: always null here

  CMSDecoder();
  ~CMSDecoder();  // stops the decode thread
  CMSDecoder(const CMSDecoder&) = delete;
  CMSDecoder& operator=(const CMSDecoder&) = delete;

  // Opens the codec: 0 on success, 1 on failure. Opening the codec that is already open keeps it as
  // it is and returns 0. The size is what the caller expects; the streams carry their own.
  int Create(DECODE_CODEC codec, tagSIZE size);

  // Closes what is open and opens the same (or the given) codec anew: 0 on success; 1 when nothing
  // was open or the opening failed, with the decoder closed. Frames queued for the decode thread
  // are dropped, as by Release: they continue pictures that the new codec does not know.
  int Reset();
  int Reset(DECODE_CODEC codec, tagSIZE size);

  // Closes the codec. The last picture stays available to LockDecodedImage.
  void Release();

  // 1 when the size agrees with the decoded one, or nothing is known of it yet; 0 when it differs.
  // The sense is opposite to the name. A different width alone counts only when both the
  // decoded picture and the codec know another one; otherwise the height decides.
  int IsResetNeeded(DECODE_CODEC codec, tagSIZE size);

  // Decodes one frame: an access unit of H.264 or H.265 (Annex B), a JPEG or an MPEG-4 picture.
  // Pictures come out in the order in which they are shown: with B-frames some frames give none,
  // and later ones show what was held back. kInputPadding bytes behind `length` must be readable.
  // `used` (may be null) receives the bytes that the codec took: all of them, or 0 when there is no
  // codec or no data. Allocates nothing while the geometry stays.
  DECODE_RESULT Decode(const unsigned char* data, int length, int* used);

  // Size of the pictures to convert to; until it is set (or while it is 0x0) that is the decoded
  // size. A picture already converted keeps its size.
  void SetDisplaySize(tagSIZE size, DisplayCallback callback);

  // The last picture, from the top row down, 4 bytes a pixel (B, G, R, A), rows of size->cx * 4
  // bytes. Null with 0x0 while there is none. The lock is held in either case: always call
  // UnlockDecodedImage, on the same thread.
  unsigned char* LockDecodedImage(tagSIZE* size);
  void UnlockDecodedImage();

  // The same of the display's picture, which is that picture. `length` receives its bytes.
  void LockDisplayImage(unsigned char** image, int* length, tagSIZE* size);
  void UnlockDisplayImage();

  // For those who draw planar pictures by themselves: with SetPlanar(true) pictures are not
  // converted any more, but kept as they are decoded, 4:2:0 ones without a copy, and at their own
  // size unless a view of the display size is made of them. LockDecodedPlanes is as
  // LockDecodedImage, with the same lock and the same duty to unlock: false while there is none.
  // The picture that was there before SetPlanar stays with LockDecodedImage.
  void SetPlanar(bool planar);
  bool LockDecodedPlanes(cms::PlanarPicture* picture);

  // The size of the stream's pictures, 0x0 until the open codec gave one.
  tagSIZE GetDecodeImageSize();

  // The decode thread: PutBuffer copies a frame into a bounded queue (32 frames, 32 MiB), from
  // which the thread decodes. StartThread needs an open codec: 0 on success (also when already
  // running), 1 otherwise. PutBuffer: 1 when queued; 0 when the queue is full or there is no thread
  // (the caller then drops frames up to the next key frame). EndThread waits for the frame in work
  // and drops the queued ones.
  int StartThread();
  int PutBuffer(const unsigned char* data, int length);
  void EndThread();
  int IsThreadAlive();  // 1 when NO thread is running

  // Takes effect with the next StartThread; null for none.
  void SetResultCallback(ResultCallback callback, void* context);

  // Fisheye view. From the next picture on LockDecodedImage gives the view of the display size in
  // place of the camera's picture: whatever the parameter's or the last view mode says, 0 for the
  // picture itself. Positions and zooms are those of the virtual cameras, kept from mode to mode; a
  // view that moved costs some milliseconds at its next picture. A lens circle that is not given is
  // looked for in the pictures; until it is found the largest circle in the middle counts.
  // CreateFishEyeManager: 0, or 1 without memory. ReleaseFishEyeManager forgets all settings.
  int CreateFishEyeManager(const stFisheyeParameter& parameter);
  void ReleaseFishEyeManager();
  void SetViewMode(int mode);
  void SetDewarpPosition(float pan, float tilt);
  void SetDewarpZoom(float zoom);
  void SetDewarpCamera(const cms::stDewarpCamera& camera);
  int GetDewarpMode();  // what SetViewMode (or the parameter's viewMode) last set

 private:
  class CMS_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};
