#include "tools/testcamera/pipeline_text.h"

#include <gst/gst.h>

#include <algorithm>

#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/picture_view.h"

namespace testcamera {
namespace {

std::string Number(long long value) {
  return std::to_string(value);
}

// In gst-launch notation a quoted text with its quotes and backslashes escaped.
std::string QuotedText(const std::string& text) {
  std::string quoted = "\"";
  for (const char each : text) {
    if (each == '"' || each == '\\') {
      quoted += '\\';
    }
    quoted += each;
  }
  return quoted + "\"";
}

int KilobitRate(const CameraOptions& options) {
  return options.bitrate > 0 ? options.bitrate
                             : std::max(64, static_cast<int>(static_cast<long long>(options.width) *
                                                             options.height * options.fps / 10000));
}

std::string RawPicture(const CameraOptions& options, int factor) {
  return "video/x-raw,format=I420,width=" + Number(options.width * factor) +
         ",height=" + Number(options.height * factor) + ",framerate=" + Number(options.fps) +
         "/1 ! ";
}

std::string Pattern(const CameraOptions& options) {
  const std::string view = options.ptz
                               ? RawPicture(options, kViewFactor) + "videocrop name=" + kViewName +
                                     " ! videoscale add-borders=false ! "
                               : std::string();
  return "videotestsrc is-live=true pattern=" + options.pattern + " ! " + view +
         RawPicture(options, 1) + "identity silent=true name=" + kStampName + " ! ";
}

// No B-frames, at the least cost that the profile allows. Parameter sets of H.264 and H.265 travel
// in the caps.
std::string Encoder(const CameraOptions& options) {
  switch (options.codec) {
    case VideoCodec::kH264: {
      const bool high = options.profile == H264Profile::kHigh;
      return "x264enc tune=zerolatency speed-preset=ultrafast threads=1 sliced-threads=false "
             "bframes=0 bitrate=" +
             Number(KilobitRate(options)) + " key-int-max=" + Number(options.gop) +
             " aud=" + (options.delimiters ? "true" : "false") +
             " option-string=scenecut=0:slices=" + Number(options.slices) +
             (high ? ":8x8dct=1:cabac=1" : "") +
             " ! video/x-h264,stream-format=avc,alignment=au,profile=" +
             (high ? "high" : "constrained-baseline") + " ! ";
    }
    case VideoCodec::kH265:
      return "x265enc tune=zerolatency speed-preset=ultrafast log-level=error bitrate=" +
             Number(KilobitRate(options)) + " key-int-max=" + Number(options.gop) +
             " option-string=info=0:scenecut=0:bframes=0:open-gop=0:pools=1:frame-threads=1:min-"
             "keyint=" +
             Number(options.gop) + ":slices=" + Number(options.slices) +
             " ! video/x-h265,profile=main ! h265parse ! "
             "video/x-h265,stream-format=hvc1,alignment=au ! ";
    case VideoCodec::kMjpeg:
      return "jpegenc quality=" + Number(options.jpegQuality) + " ! ";
    case VideoCodec::kMpeg4:
      return std::string("avenc_mpeg4 name=") + kUntimedName +
             " max-bframes=0 bitrate=" + Number(KilobitRate(options) * 1000LL) +
             " gop-size=" + Number(options.gop) + " ! ";
  }
  return {};
}

std::string VideoPayloader(const CameraOptions& options, VideoCodec codec) {
  const std::string common = " name=pay0 pt=96 mtu=" + Number(options.mtu) + " ";
  const std::string aggregated = options.packets == PacketStyle::kStap
                                     ? "aggregate-mode=zero-latency "
                                     : "aggregate-mode=none ";
  // The payloaders repeat H.264 and H.265 parameter sets in front of each slice, which is inside a
  // picture: they are put into the pictures instead.
  switch (codec) {
    case VideoCodec::kH264:
      return "rtph264pay config-interval=0 " + aggregated + common;
    case VideoCodec::kH265:
      return "rtph265pay config-interval=0 " + aggregated + common;
    case VideoCodec::kMjpeg:
      return "rtpjpegpay name=pay0 pt=26 mtu=" + Number(options.mtu) + " ";
    case VideoCodec::kMpeg4:
      // Without a longest time it would put several small pictures into one packet.
      return "rtpmp4vpay max-ptime=1 config-interval=" +
             std::string(options.parameterSets == ParameterSets::kSdp ? "0" : "-1") + common;
  }
  return {};
}

std::string Tone(int samples, int rate) {
  return "audiotestsrc is-live=true wave=sine freq=440 volume=0.5 samplesperbuffer=" +
         Number(samples) + " ! audio/x-raw,channels=1,rate=" + Number(rate) + " ! ";
}

std::string Audio(AudioCodec codec) {
  const std::string pcm = Tone(160, 8000);
  switch (codec) {
    case AudioCodec::kNone:
      return {};
    case AudioCodec::kPcmu:
      return pcm + "mulawenc ! rtppcmupay name=pay1 pt=0 ";
    case AudioCodec::kPcma:
      return pcm + "alawenc ! rtppcmapay name=pay1 pt=8 ";
    case AudioCodec::kL16:
      return pcm + "audioconvert ! rtpL16pay name=pay1 pt=97 ";
    case AudioCodec::kAac:
      return Tone(1024, 16000) + "avenc_aac bitrate=48000 ! rtpmp4gpay name=pay1 pt=97 ";
    case AudioCodec::kLatm:
      return Tone(1024, 16000) + "avenc_aac bitrate=48000 ! rtpmp4apay name=pay1 pt=97 ";
    case AudioCodec::kG726:  // packed as RFC 3551 says, which the payloader does only when told
      return pcm + "avenc_g726 bitrate=32000 ! rtpg726pay name=pay1 pt=97 force-aal2=false ";
  }
  return {};
}

}  // namespace

std::string RtspPipeline(const CameraOptions& options, VideoCodec codec) {
  const std::string video =
      options.file.empty()
          ? Pattern(options) + Encoder(options)
          : std::string("appsrc name=") + kFeedName +
                " is-live=true format=time block=true max-buffers=2 max-bytes=0 ! ";
  return "( " + video + VideoPayloader(options, codec) + Audio(options.audio) + ")";
}

std::string TalkPipeline(const CameraOptions& options) {
  return "( capsfilter name=depay_backchannel caps=\"application/x-rtp,media=audio,payload=0,"
         "clock-rate=8000,encoding-name=PCMU\" ! rtppcmudepay ! filesink async=false sync=false "
         "buffer-mode=unbuffered location=" +
         QuotedText(options.talk) + " )";
}

bool IsPattern(const std::string& name) {
  const ObjectPtr<GstElement> source(
      GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("videotestsrc", nullptr))));
  const GParamSpec* pattern =
      g_object_class_find_property(G_OBJECT_GET_CLASS(source.get()), "pattern");
  return g_enum_get_value_by_nick(G_PARAM_SPEC_ENUM(pattern)->enum_class, name.c_str()) != nullptr;
}

std::string HttpPipeline(const CameraOptions& options) {
  const std::string video = options.file.empty() ? Pattern(options)
                                                 : "filesrc location=" + QuotedText(options.file) +
                                                       " ! decodebin ! videoconvert ! ";
  return video + "jpegenc quality=75 ! appsink name=sink sync=true max-buffers=2 drop=true";
}

}  // namespace testcamera
