// What a client application gives the playback controller, and what it is called back with.
#pragma once

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "cms/live/media/fisheye.h"
#include "cms/runtime/api.h"

namespace cms {

// All times of playback are milliseconds since 1970-01-01 UTC.
inline constexpr std::int64_t kPlaybackNoTargetTime = std::numeric_limits<std::int64_t>::max();

// How the files of a site are read.
enum PLAYBACK_SOURCE : int {
  PLAYBACK_SOURCE_DRV = 0,         // all recordings of the site, as one timeline
  PLAYBACK_SOURCE_SINGLE_DRV = 1,  // the first file alone
  // One file of bare video: H.264 (Annex B), MPEG-4 or JPEGs behind each other, without times.
  PLAYBACK_SOURCE_RAW = 2,
};

struct _MULTI_PB_SITE_CONFIG {
  std::uint32_t siteNumber = 0;
  std::wstring siteName;
  int siteType = 0;
  PLAYBACK_SOURCE source = PLAYBACK_SOURCE_DRV;

  // Paths of the .drv files, in any order, as the system writes them. Their indexes are looked for
  // beside them; a missing or wrong one is made anew in memory. Where two files overlap, the one
  // that begins later is played; files that merely share a second are both played whole.
  std::vector<std::wstring> files;

  // One more of them, native and in UTF-8.
  CMS_API void AddFile(const std::string& path);

  // Where relative paths of recordings count from (cms/recording/data_root.h), as the search engine
  // that found them was told; empty: that of the process.
  std::string dataRoot;

  // Also look for newer recordings of the site while playing at its end, for as long as that lasts:
  // in the folder of its last file and, when that folder's name is a day ("20240229"), in those of
  // later days beside it (PLAYBACK_SOURCE_DRV, names of the form "Rec_Site12_20240229.drv").
  bool followNewFiles = false;

  int channelCount = 1;              // 0: as many as the index of the first file names
  std::vector<std::wstring> titles;  // of the channels; the site's name for those without one
  std::vector<std::wstring> texts;   // a second line for each channel, as GetTextString gives it
  stFisheyeParameter fisheye;        // how its channels are looked at (cms/live/media/fisheye.h)

  double rawFrameRate = 25;       // of PLAYBACK_SOURCE_RAW
  std::int64_t rawStartTime = 0;  // the time of its first picture
};

// An audio block that is due, as it was recorded.
struct _MULTI_PB_AUDIO_BLOCK {
  unsigned site = 0;  // index
  unsigned channel = 0;
  std::int64_t time = 0;
  std::uint32_t codecId = 0;  // CMSCodecID
  std::uint32_t sampleRate = 0;
  std::uint16_t channels = 0;
  std::uint16_t bitsPerSample = 0;
  const unsigned char* data = nullptr;  // valid during the call
  long size = 0;                        // bytes
  const char* device = "";              // what SetAudio gave for the site
};

}  // namespace cms

struct _MULTI_SITE_PLAYBACK_CONFIG {
  std::vector<cms::_MULTI_PB_SITE_CONFIG> sites;        // in the order of their site indexes
  std::int64_t startTime = cms::kPlaybackNoTargetTime;  // none: where the first site begins
  bool startPaused = false;

  // Both may be null. They run on the channel's reader thread with no lock held; they must not stop
  // or destroy the controller, and what they do delays that channel's pictures.
  void (*onPicture)(void* context, unsigned site, unsigned channel, std::int64_t time) = nullptr;
  void (*onAudio)(void* context, const cms::_MULTI_PB_AUDIO_BLOCK* block) = nullptr;
  void* context = nullptr;
};

// What a reader says of a frame that it hands to GetFrameCallBack, and the answer to it.
struct _MULTI_PB_GET_FRAME_CALL_BACK_PARAM {
  unsigned site = 0;  // index
  unsigned channel = 0;
  std::int64_t time = 0;
  int frameType = 0;            // a cms::FrameType
  std::uint64_t serial = 0;     // the synchronisation that the reader works for
  std::int64_t wantedTime = 0;  // of the picture that it is on its way to
  int show = 0;                 // answer: 0: decode it for those that follow, 1: it is that picture
};

namespace cms {

// What a channel shows at the moment (GetChFrameState).
enum PLAYBACK_CHANNEL_STATE : char {
  PLAYBACK_CHANNEL_OFF = 0,      // not displayed, or there is no such channel
  PLAYBACK_CHANNEL_SEEKING = 1,  // its picture of the controller's time is being decoded
  PLAYBACK_CHANNEL_SHOWN = 2,
  PLAYBACK_CHANNEL_GAP = 3,  // nothing was recorded at this time: there is no picture
  PLAYBACK_CHANNEL_END = 4,  // nothing follows in the direction of play
};

// What one channel has shown since playback was started.
struct stPlaybackChannelStatus {
  std::uint64_t shown = 0;           // pictures
  std::int64_t first = 0;            // time of the first one, 0: none yet
  std::int64_t last = 0;             // time of the last one
  std::uint64_t lost = 0;            // frames that gave no picture
  int endOfFile = 0;                 // nothing follows in the direction of play
  std::uint64_t skippedBytes = 0;    // of the recordings read so far, in no frame
  std::uint64_t rebuiltIndexes = 0;  // that were missing or wrong
};

}  // namespace cms
