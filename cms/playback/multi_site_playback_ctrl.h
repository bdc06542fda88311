// CCMSMultiSitePlaybackCtrl plays the recordings of several sites in step.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cms/live/decoder.h"
#include "cms/live/media/fisheye.h"
#include "cms/live/media/size.h"
#include "cms/playback/playback_config.h"
#include "cms/runtime/api.h"

// The head of a picture of CurImageGet: 32 bits a pixel (B, G, R, A), rows from the top down.
struct tagBITMAPINFO {
  std::uint32_t biSize = 40;
  std::int32_t biWidth = 0;
  std::int32_t biHeight = 0;  // negative: the top row comes first
  std::uint16_t biPlanes = 1;
  std::uint16_t biBitCount = 32;
  std::uint32_t biCompression = 0;
  std::uint32_t biSizeImage = 0;  // bytes
};

// The order of calls: SetConfig, StartPlayback, anything else, StopPlayback (or the destructor),
// and again. Sites and channels are numbered from 0 in the order of the configuration; a number
// beyond is ignored (result 0). Results are 1 for success and 0 for failure unless stated.
//
// Time. One clock serves all sites; its times, as all times here, are milliseconds since 1970-01-01
// UTC. Speed 1 is real time and each step above doubles it: 2, 4, 8, 16, 32 times at the speeds 2
// to 6. Slow mode halves the speed. Negative speeds play backward. From 8 times on only key frames
// are shown. A channel shows the last picture that is not later than the clock, so never one that
// is further away than one picture interval; a decoder that cannot keep up leaves pictures out,
// down to key frames alone. Where a site has no recording it shows no picture; time at which no
// displayed site has any is passed over by all together. At the last picture (backward: at the
// first one) the clock stands still.
//
// Synchronising. A new target time, a step, and a change of direction move all channels together:
// the pictures of the new time appear when each displayed channel has its own ready, or after two
// seconds without those that are late.
//
// Stepping moves the current channel (setCurrentSiteIdx, setCurrentDisplayChannel) by exactly one
// picture and the others to the pictures of its time. Where it shows none, because it has nothing
// at this time, a step back leads to the last one in front of the clock. When it has no picture in
// that direction, or its disk does not answer for two seconds, the next displayed channel steps.
//
// Threads. Any thread may call any member, but SetConfig, StartPlayback, StopPlayback and the
// destructor belong to the owner. No member waits for a decoder or for the disk, except
// StartPlayback, GetPlaybackFrameData and GetStartAndEndTimeOfDRVFile, which read. Each channel has
// a reader thread ("cms-playback"), which reads, decodes and shows its pictures, and waits while
// there is nothing to show. Locks: the controller's, then the transport's; pictures have their own.
class CMS_API CCMSMultiSitePlaybackCtrl {
 public:
  using RenderCallback = void (*)(IDirect3DSurface9* surface);  // surface: always null here

  CCMSMultiSitePlaybackCtrl();
  ~CCMSMultiSitePlaybackCtrl();  // stops
  CCMSMultiSitePlaybackCtrl(const CCMSMultiSitePlaybackCtrl&) = delete;
  CCMSMultiSitePlaybackCtrl& operator=(const CCMSMultiSitePlaybackCtrl&) = delete;

  // --- Life -----------------------------------------------------------------------------------
  int SetConfig(_MULTI_SITE_PLAYBACK_CONFIG& config);  // copied; 0 while started or without a site

  // Opens the recordings and begins to play at speed 1, or paused. Files that cannot be read are
  // left out; 0 when nothing is left (GetLastErrorText says why) or playback has started already.
  int StartPlayback();
  void StopPlayback();
  int HasStartPlay() const;
  std::string GetLastErrorText() const;  // of SetConfig and StartPlayback, UTF-8

  int IsAllEndOfFile() const;  // every displayed channel is at its end, in the direction of play
  // Of a recording's first and last picture. 0 when the file has none or cannot be read.
  int GetStartAndEndTimeOfDRVFile(std::int64_t* start, std::int64_t* end, const wchar_t* file);
  // The same for a native path in UTF-8.
  int GetStartAndEndTimeOfDRVFile(std::int64_t* start, std::int64_t* end, const std::string& file);
  std::int64_t GetPlaybackDataStartTime() const;  // of all sites; 0 while not started
  std::int64_t GetPlaybackDataEndTime() const;
  std::int64_t GetTotalPlaybackTime() const;  // milliseconds between the two

  // --- Transport: each returns 0 and changes nothing while playback has not started ------------
  int PlaybackPause();
  int PlaybackResume();  // forward, speed 1
  int PlaybackStepForward();
  int PlaybackStepBackward();
  // One step faster or slower: ... -2, -1, 1, 2 ... 6 (there is no 0). Nothing changes at 6 and -6.
  // From a pause the first step leads to 1 or -1.
  int PlaybackSetSpeedUp();
  int PlaybackSetSlowDown();
  int PlaybackSetSlowMode(int slow);
  int SetPlaybackTargetTime(std::int64_t time);

  int GetPlaySpeed() const;       // -6 to 6; 0 while paused or stepping
  int IsPlaybackPause() const;    // the speed is 0
  int IsPlaybackPlaying() const;  // it is not
  int IsPlaybackStep() const;     // the last operation was a step
  int IsPlaybackInSlowMode() const;
  // The target until its pictures are shown, and kPlaybackNoTargetTime else; 0 after a step
  // backward.
  std::int64_t GetCurPlaybackTargetTime() const;
  std::int64_t GetPlaybackTime() const;  // where the clock is; 0 while not started

  // Waits until every displayed channel shows what belongs to the clock (or nothing, in a gap or
  // when it is late), at most so long: 1, or 0 when the time was over. For clients that take one
  // picture after an operation.
  int WaitUntilShown(int milliseconds) const;

  // --- Which channels are decoded and shown ------------------------------------------------------
  // These and the switches of sound may be set before playback starts, and hold when it is started
  // again; those of sites and channels (0 when there is no such channel) from SetConfig to
  // SetConfig. Speed and slow mode begin anew with each start. How many pictures the display has:
  // that many channels play, beginning with the current one, in the order of sites and channels. 0,
  // as at the start: all of them.
  void setCurrentSplitMode(int pictures);
  void setCurrentDisplayChannel(int channel);
  void setCurrentSiteIdx(int site);
  int SetSingleChannel(unsigned site, unsigned channel, int on);  // of its site only this one plays
  int S_ON_DDCH_ONE(unsigned site, unsigned channel, int on);     // switches one channel
  // Key frames only, so that pictures follow a searching hand at once.
  int SetQuickSearch(unsigned site, unsigned channel, int on);
  int IsQuickSearch(unsigned site) const;  // of any of its channels

  // --- Sites and channels ------------------------------------------------------------------------
  int GetTotalPlaySite() const;
  int GetSiteNum(unsigned site) const;          // the site's number, -1 when there is no such site
  int GetPlayingSiteIdx(int siteNumber) const;  // the reverse, -1 likewise
  int GetTotalChannel(unsigned site) const;
  int GetCMSSiteType(unsigned site) const;
  unsigned GetImageID(unsigned site, unsigned channel) const;  // grows with each picture shown
  char GetChFrameState(unsigned site, unsigned channel) const;
  int GetChannelStatus(unsigned site, unsigned channel, cms::stPlaybackChannelStatus* status) const;
  // The largest distance, in milliseconds, of a shown picture from the clock, taken over all
  // channels whenever the clock is read or a picture is looked at: what is due is shown before.
  std::int64_t GetMaximumSkew() const;
  int IsIPCamera(unsigned site, unsigned channel) const;  // a site of one channel is a camera
  int IsH264(unsigned site, unsigned channel) const;      // these four: of the picture shown
  int IsH265(unsigned site, unsigned channel) const;
  int IsMJPEG(unsigned site, unsigned channel) const;
  int IsMPEG4(unsigned site, unsigned channel) const;
  int Is84Inter(unsigned site, unsigned channel) const;  // 704x240 or 704x288: one field of a frame
  int GetVideoFormat(unsigned site, unsigned channel) const;  // 0: 30 pictures a second, 1: other
  tagSIZE GetWidHei(unsigned site, unsigned channel) const;   // as recorded
  std::int64_t CurTimeGet(unsigned site,
                          unsigned channel) const;  // of the picture, 0: there is none
  int GetCAMERA_TITLE(unsigned site, unsigned channel, std::wstring* title) const;
  int GetTextType(unsigned site, unsigned channel) const;  // 1 when it has a text line, else 0
  int GetTextString(unsigned site, unsigned channel, std::wstring* text) const;
  // As the site's configuration has it.
  int GetFisheyeInfo(unsigned site, unsigned channel, stFisheyeParameter* parameter) const;

  // --- Pictures ----------------------------------------------------------------------------------
  // The picture shown: BGRA rows from the top down without gaps, null while there is none. It stays
  // as it is until UnlockDecodedImage, which the same thread owes for each picture that it got;
  // meanwhile playing goes on and others get newer pictures. Neither call ever waits for a decoder.
  // Pictures outlive StopPlayback until they are unlocked, but not the controller.
  unsigned char* LockDecodedImage(unsigned site, unsigned channel, tagSIZE* size);
  void UnlockDecodedImage(unsigned site, unsigned channel);
  // The same with a head: LockImage (0 without a picture), CurImageGet, UnLockImage.
  int LockImage(unsigned site, unsigned channel);
  int CurImageGet(unsigned site, unsigned channel, tagBITMAPINFO& head, unsigned char*& pixels);
  void UnLockImage(unsigned site, unsigned channel);
  // The size of the pictures from now on (null or 0x0: as recorded), and what is called after each,
  // on the channel's reader thread with no lock held (may be null).
  int SetDecoderRenderCallback(unsigned site, unsigned channel, const tagSIZE* size,
                               RenderCallback callback);
  // How the channel is looked at from now on, the picture shown included; of a site's configuration
  // until then. Positions and zooms are of its virtual cameras. 0 when playback has not started.
  int SetFisheye(unsigned site, unsigned channel, const cms::FisheyeSettings& settings);
  // Copies the recorded frame that is shown at a time, its header in front. `size`: bytes of the
  // buffer, then of the frame; 0 when there is no frame, or none that fits (size says).
  int GetPlaybackFrameData(unsigned site, unsigned channel, std::int64_t time,
                           unsigned char* buffer, long& size);

  // --- Audio: handed out (onAudio) at speed 1 forward --------------------------------------------
  int SetAudio(unsigned site, const std::string& device);  // a name that goes with its blocks
  int SetChAudioState(unsigned site, unsigned channel, int on);
  void SetAllAudioState(int on);

  // --- For the readers ---------------------------------------------------------------------------
  // Every frame passes here on its way to the decoder. 1: decode it (parameter->show says for
  // what); 0: the reader is to look anew where it stands, because playback stopped or was
  // synchronised anew since `serial`. Takes the locks for a moment only; never decodes.
  int GetFrameCallBack(const void* frame, long size,
                       _MULTI_PB_GET_FRAME_CALL_BACK_PARAM* parameter);

 private:
  class CMS_HIDDEN Impl;
  std::unique_ptr<Impl> impl_;
};
