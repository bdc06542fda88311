// Everything that a client application uses, in one include.
#pragma once

#include "cms/audio/g711_decoders.h"
#include "cms/audio/ima_adpcm_decoder.h"
#include "cms/audio/ms_adpcm_decoder.h"
#include "cms/audio/pcm_decoder.h"
#include "cms/exports/audio_exports.h"
#include "cms/exports/codec_exports.h"
#include "cms/exports/file_exports.h"
#include "cms/exports/net_exports.h"
#include "cms/exports/recording_exports.h"
#include "cms/exports/rtsp_exports.h"
#include "cms/exports/stream_probe_exports.h"
#include "cms/exports/text_exports.h"
#include "cms/live/client_base.h"
#include "cms/live/decoder.h"
#include "cms/streaming/http_client.h"
#include "cms/streaming/rtsp_client.h"
