// Audio codecs as plain functions: ITU-T G.711 both ways, IMA ADPCM code by code, an 8-bit ADPCM of
// one family of devices, and what a wave format record says of its codec.
//
// All functions may be called from any thread; states belong to their caller, one thread at a time.
// Whole received blocks are decoded by the classes of cms/audio/*_decoder.h.
#pragma once

#include "cms/audio/adpcm_state.h"
#include "cms/audio/wave_format.h"
#include "cms/runtime/api.h"

extern "C" {

// G.711 decoding: `count` codes become as many 16-bit samples. Returns the bytes written, 2 x
// count; -1 for a null pointer, a count or output size (bytes) below 1, or an output size below 2 x
// count.
CMS_API int g711_aDecoder(const unsigned char* codes, int count, short* samples, int outputSize);
CMS_API int g711_uDecoder(const unsigned char* codes, int count, short* samples, int outputSize);

// G.711 encoding: `count` samples become as many codes, of which no more than `outputSize` are
// written. Returns count / 2, NOT the number of codes: clients count in pairs. -1 for a null
// pointer, a count or output size (bytes) below 1, or a count above twice the output size.
CMS_API int g711_aEncoder(const short* samples, int count, unsigned char* codes, int outputSize);
CMS_API int g711_uEncoder(const short* samples, int count, unsigned char* codes, int outputSize);

// The next sample of an IMA ADPCM stream. A code outside 0..15 or a null state: a message on
// standard error, result 0, the state unchanged.
CMS_API int DecodeADPCMC(int code, ADPCMState* state);

// The code (0..15) of the next sample. The state lags by one code: the call first takes
// `previousCode` into it, so the encoder starts with 0 and a zero state, and the state after the
// call is the one that decoding the returned code starts from. Null state: a message, result 0.
CMS_API int EncodeADPCMC(int sample, int previousCode, ADPCMState* state);

// An 8-bit ADPCM: each input byte (high nibble first) becomes four output bytes, signed samples of
// which each is written twice; the output has room for 4 x length. Index (0..22) and predictor
// (-128..127) go in and come out, zero at first. Does nothing for a null pointer or a length
// below 1.
CMS_API void adpcm_decoder(const unsigned char* input, unsigned char* output, int length,
                           signed char* index, short* predictor);

// The codec of a format (CMS_CODEC_PCM_S16LE, CMS_CODEC_PCM_ALAW or CMS_CODEC_PCM_MULAW) and how
// many bytes of 16-bit PCM one of its bytes stands for (1, 2 and 2). 1 when the format is known;
// otherwise 0, with the identifier 0 and the ratio untouched.
CMS_API int GetAudioCodecIDFromAudioFmtTag(int* codecId, const cms::CMSWaveFormat* format);
CMS_API int GetAudioCompressRatioFromAudioFmtTag(int* ratio, const cms::CMSWaveFormat* format);

}  // extern "C"
