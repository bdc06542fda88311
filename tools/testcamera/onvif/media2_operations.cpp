// The second version of the media service: the same profiles, with H.265 and AAC.
#include "tools/testcamera/onvif/encoder_elements.h"
#include "tools/testcamera/onvif/operations.h"
#include "tools/testcamera/onvif/ptz_service.h"

namespace testcamera {
namespace {

const MediaProfile& Media2ProfileOf(const Call& call) {
  const MediaProfile* profile =
      call.camera.settings.FindProfile(TextAt(call.request, "ProfileToken").value_or(""));
  if (profile == nullptr) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoProfile", "There is no such profile"};
  }
  return *profile;
}

bool IsAac(AudioCodec codec) {
  return codec == AudioCodec::kAac || codec == AudioCodec::kLatm;
}

const char* SoundName(AudioCodec codec) {
  return IsAac(codec) ? "MP4A-LATM" : codec == AudioCodec::kG726 ? "G726" : "PCMU";
}

void AddMedia2Encoder(Element parent, const Encoder& encoder, const Call& call) {
  Element element =
      parent.Add("tr2:VideoEncoder")
          .Attribute("token", encoder.token)
          .Attribute("GovLength", std::to_string(encoder.gop))
          .Attribute("Profile", encoder.encoding == "H265" ? "Main" : encoder.profile);
  element.Add("tt:Name", encoder.name);
  element.Add("tt:UseCount", call.camera.settings.EncoderUses(encoder.token));
  element.Add("tt:Encoding", encoder.encoding);
  AddResolution(element, "tt:Resolution", encoder.width, encoder.height);
  Element rate = element.Add("tt:RateControl").Attribute("ConstantBitRate", "true");
  rate.Add("tt:FrameRateLimit", encoder.fps);
  rate.Add("tt:BitrateLimit", encoder.bitrate);
  element.Add("tt:Quality", encoder.quality);
}

void GetMedia2Profiles(Call& call) {
  for (const MediaProfile& profile : call.camera.settings.profiles) {
    Element element = call.answer.Add("tr2:Profiles")
                          .Attribute("token", profile.token)
                          .Attribute("fixed", profile.fixed ? "true" : "false");
    element.Add("tr2:Name", profile.name);
    Element parts = element.Add("tr2:Configurations");
    if (!profile.videoSource.empty()) {
      Element source = parts.Add("tr2:VideoSource").Attribute("token", kVideoSourceConfiguration);
      source.Add("tt:Name", "VideoSource");
      source.Add("tt:SourceToken", kVideoSource);
    }
    if (const Encoder* encoder = call.camera.settings.FindEncoder(profile.encoder)) {
      AddMedia2Encoder(parts, *encoder, call);
    }
    if (!profile.audioEncoder.empty()) {
      Element sound = parts.Add("tr2:AudioEncoder").Attribute("token", kAudioEncoder);
      sound.Add("tt:Name", "AudioEncoder");
      sound.Add("tt:Encoding", SoundName(call.camera.camera.audio));
      sound.Add("tt:Bitrate", call.camera.settings.audio.bitrate);
      sound.Add("tt:SampleRate", IsAac(call.camera.camera.audio) ? 16 : 8);
    }
    if (call.camera.camera.ptz) {
      AddPtzConfiguration(parts, "tr2:PTZ");
    }
  }
}

void GetMedia2StreamUri(Call& call) {
  const MediaProfile& profile = Media2ProfileOf(call);
  const Encoder* encoder = call.camera.settings.FindEncoder(profile.encoder);
  if (encoder == nullptr || !encoder->enabled) {
    throw SoapFault{"ter:Action", "ter:IncompleteConfiguration", "The profile streams nothing",
                    true};
  }
  const auto number = static_cast<int>(encoder - call.camera.settings.encoders.data()) + 1;
  call.answer.Add("tr2:Uri", call.rtsp + StreamOptions(call.camera.camera, *encoder, number).path);
}

void GetMedia2EncoderOptions(Call& call) {
  for (const char* encoding : {"H264", "H265"}) {
    Element options = call.answer.Add("tr2:Options")
                          .Attribute("GovLengthRange", "1 250")
                          .Attribute("FrameRatesSupported", "30 25 12.5")
                          .Attribute("ProfilesSupported",
                                     encoding == std::string("H265") ? "Main" : "Baseline High");
    options.Add("tt:Encoding", encoding);
    Element quality = options.Add("tt:QualityRange");
    quality.Add("tt:Min", 1);
    quality.Add("tt:Max", 100);
    for (const FrameSize& size : FrameSizes(call.camera.settings.Is50Hz())) {
      AddResolution(options, "tt:ResolutionsAvailable", size.width, size.height);
    }
    Element rate = options.Add("tt:BitrateRange");
    rate.Add("tt:Min", 16);
    rate.Add("tt:Max", 20000);
  }
}

}  // namespace

void AddMedia2Operations(Operations* operations) {
  const auto add = [operations](const char* name, std::function<void(Call&)> run) {
    (*operations)[{kMedia2Space, name}] = {false, std::move(run)};
  };
  add("GetProfiles", GetMedia2Profiles);
  add("GetStreamUri", GetMedia2StreamUri);
  add("GetVideoEncoderConfigurationOptions", GetMedia2EncoderOptions);
  add("GetSnapshotUri", [](Call& call) {
    Media2ProfileOf(call);
    call.answer.Add("tr2:Uri", call.onvif + "snapshot");
  });
}

}  // namespace testcamera
