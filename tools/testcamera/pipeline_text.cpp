#include "tools/testcamera/pipeline_text.h"

#include <gst/gst.h>

#include <algorithm>

#include "tools/testcamera/gst_ptr.h"

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

std::string Pattern(const CameraOptions& options) {
  return "videotestsrc is-live=true pattern=" + options.pattern +
         " ! video/x-raw,format=I420,width=" + Number(options.width) +
         ",height=" + Number(options.height) + ",framerate=" + Number(options.fps) +
         "/1 ! identity silent=true name=" + kStampName + " ! ";
}

// One slice a picture and no B-frames, at the least cost that the profile allows. Parameter sets
// travel in the caps; the payloader puts them where they are wanted.
std::string Encoder(const CameraOptions& options) {
  switch (options.codec) {
    case VideoCodec::kH264: {
      const bool high = options.profile == H264Profile::kHigh;
      return "x264enc tune=zerolatency speed-preset=ultrafast threads=1 sliced-threads=false "
             "bframes=0 bitrate=" +
             Number(KilobitRate(options)) + " key-int-max=" + Number(options.gop) +
             " aud=" + (options.delimiters ? "true" : "false") + " option-string=scenecut=0" +
             (high ? ":8x8dct=1:cabac=1" : "") +
             " ! video/x-h264,stream-format=avc,alignment=au,profile=" +
             (high ? "high" : "constrained-baseline") + " ! ";
    }
    case VideoCodec::kMjpeg:
      return "jpegenc quality=" + Number(options.jpeg_quality) + " ! ";
    case VideoCodec::kMpeg4:
      return std::string("avenc_mpeg4 name=") + kUntimedName +
             " max-bframes=0 bitrate=" + Number(KilobitRate(options) * 1000LL) +
             " gop-size=" + Number(options.gop) + " ! ";
  }
  return {};
}

std::string VideoPayloader(const CameraOptions& options, VideoCodec codec) {
  const std::string common = " name=pay0 pt=96 mtu=" + Number(options.mtu) + " ";
  const std::string in_band =
      options.parameter_sets == ParameterSets::kSdp ? "config-interval=0" : "config-interval=-1";
  switch (codec) {
    case VideoCodec::kH264:
      return "rtph264pay aggregate-mode=" +
             std::string(options.packets == PacketStyle::kStap ? "zero-latency " : "none ") +
             in_band + common;
    case VideoCodec::kMjpeg:
      return "rtpjpegpay name=pay0 pt=26 mtu=" + Number(options.mtu) + " ";
    case VideoCodec::kMpeg4:
      // Without a longest time it would put several small pictures into one packet.
      return "rtpmp4vpay max-ptime=1 " + in_band + common;
  }
  return {};
}

std::string Audio(AudioCodec codec) {
  if (codec == AudioCodec::kNone) {
    return {};
  }
  const std::string source =
      "audiotestsrc is-live=true wave=sine freq=440 volume=0.5 samplesperbuffer=160 ! "
      "audio/x-raw,rate=8000,channels=1 ! ";
  switch (codec) {
    case AudioCodec::kPcmu:
      return source + "mulawenc ! rtppcmupay name=pay1 pt=0 ";
    case AudioCodec::kPcma:
      return source + "alawenc ! rtppcmapay name=pay1 pt=8 ";
    default:
      return source + "audioconvert ! rtpL16pay name=pay1 pt=97 ";
  }
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
