// Sound devices as plain functions: players of camera audio, microphones, and what devices there
// are.
//
// A handle is what CreateCMSAudioPlayer returned, until DestroyAudioPlayer; 0 and all-ones are
// tolerated everywhere (result 0). Functions may be called from any thread, PlayAudio and
// GetEncodeAudioData from one at a time for each handle.
#pragma once

#include "cms/live/media/audio_endpoint.h"
#include "cms/runtime/api.h"

namespace cms {

using CMSAudioPlayerHandle = void*;

// Kinds of devices.
inline constexpr int kCMSAudioOutput = 0;
inline constexpr int kCMSAudioInput = 1;

struct CMSAudioDeviceInfo {
  char name[128];         // what `device` arguments take
  char description[256];  // for people
};

}  // namespace cms

extern "C" {

// A player of blocks of the configured codec (kind kCMSAudioOutput), or a microphone (kind
// kCMSAudioInput). `device`: a name of the system's ALSA configuration; null: the one that
// config->device counts, or the default one. 0 when the configuration cannot be used.
CMS_API cms::CMSAudioPlayerHandle CreateCMSAudioPlayer(const tCMSAudioPlayerConfig* config,
                                                       int kind, const char* device);
CMS_API void DestroyAudioPlayer(cms::CMSAudioPlayerHandle player);  // stops it

// Opens the device: 1, also when it was started before; 0 when the device cannot be opened.
CMS_API int StartAudioPlayer(cms::CMSAudioPlayerHandle player);
// 1 when it was started. A player lets its device finish, see CCMSAudioPlayer::Stop.
CMS_API int StopAudioPlayer(cms::CMSAudioPlayerHandle player);

// Queues one received block of a started player: 1, or 0 when it was refused.
CMS_API int PlayAudio(cms::CMSAudioPlayerHandle player, const unsigned char* block, int length);

// The next encoded 20 ms block of a started microphone, waited for up to `timeoutMs` (0: not at
// all). Returns its length in bytes; 0 when there is none, -1 when `size` is too small for it (it
// stays). Blocks nobody fetched within two seconds are dropped, oldest first.
CMS_API int GetEncodeAudioData(cms::CMSAudioPlayerHandle microphone, unsigned char* buffer,
                               int size, unsigned timeoutMs);

// Device number `index` (from 0, the default one first) of a kind: 1, or 0 when there are fewer.
CMS_API int GetAudioDeviceInfoByAudioType(int kind, unsigned index, cms::CMSAudioDeviceInfo* info);

// The codec of an audio type as CMSClientBase::GetAudioType gives it: a CMSCodecID, or a WAV format
// tag (1 PCM, 2 MS ADPCM, 6 A-law, 7 mu-law, 0x11 IMA ADPCM). 1 and the codec; 0 and
// CMS_CODEC_NONE for any other type.
CMS_API int GetAudioCodecIDByAudioType(int audioType, int* codecId);

// Reads what a block's header says of its decoder's start, see
// CAudioDecoderBase::GetIndexAndPrediction; of a started player.
CMS_API int GetIndexAndPrediction(cms::CMSAudioPlayerHandle player, const unsigned char* block,
                                  unsigned channelMode);

}  // extern "C"
