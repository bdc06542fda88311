// The media service, but for its encoders: profiles, what they are made of, where they are
// streamed.
#include "tools/testcamera/onvif/encoder_elements.h"
#include "tools/testcamera/onvif/operations.h"
#include "tools/testcamera/onvif/ptz_service.h"

namespace testcamera {
namespace {

constexpr int kMaxProfiles = 16;

MediaProfile& ProfileOf(const Call& call) {
  MediaProfile* profile =
      call.camera.settings.FindProfile(TextAt(call.request, "ProfileToken").value_or(""));
  if (profile == nullptr) {
    throw SoapFault{"ter:InvalidArgVal", "ter:NoProfile", "There is no such profile"};
  }
  return *profile;
}

[[noreturn]] void NoConfiguration() {
  throw SoapFault{"ter:InvalidArgVal", "ter:NoConfig", "There is no such configuration"};
}

int Uses(const CameraSettings& settings, std::string MediaProfile::*member) {
  int uses = 0;
  for (const MediaProfile& each : settings.profiles) {
    uses += (each.*member).empty() ? 0 : 1;
  }
  return uses;
}

void AddName(Element element, const char* name, int uses) {
  element.Add("tt:Name", name);
  element.Add("tt:UseCount", uses);
}

void AddVideoSourceConfiguration(Element parent, const char* name, const Call& call) {
  const Encoder& first = call.camera.settings.encoders.front();
  Element element = parent.Add(name).Attribute("token", kVideoSourceConfiguration);
  AddName(element, "VideoSource", Uses(call.camera.settings, &MediaProfile::videoSource));
  element.Add("tt:SourceToken", kVideoSource);
  element.Add("tt:Bounds")
      .Attribute("x", "0")
      .Attribute("y", "0")
      .Attribute("width", std::to_string(first.width))
      .Attribute("height", std::to_string(first.height));
}

void AddAudioSourceConfiguration(Element parent, const char* name, const Call& call) {
  Element element = parent.Add(name).Attribute("token", kAudioSourceConfiguration);
  AddName(element, "AudioSource", Uses(call.camera.settings, &MediaProfile::audioSource));
  element.Add("tt:SourceToken", kAudioSource);
}

void AddAudioEncoderConfiguration(Element parent, const char* name, const Call& call) {
  const AudioEncoder& audio = call.camera.settings.audio;
  Element element = parent.Add(name).Attribute("token", kAudioEncoder);
  AddName(element, "AudioEncoder", Uses(call.camera.settings, &MediaProfile::audioEncoder));
  element.Add("tt:Encoding", audio.encoding);
  element.Add("tt:Bitrate", audio.bitrate);
  element.Add("tt:SampleRate", audio.sampleRate);
  AddMulticast(element, "224.1.0.1", 40100, 5, false);
  element.Add("tt:SessionTimeout", "PT60S");
}

void AddMetadataConfiguration(Element parent, const char* name, const Call& call) {
  Element element = parent.Add(name).Attribute("token", kMetadata);
  AddName(element, "Metadata", Uses(call.camera.settings, &MediaProfile::metadata));
  AddMulticast(element, "224.1.0.1", 40200, 5, false);
  element.Add("tt:SessionTimeout", "PT60S");
}

// The order is the schema's.
void AddProfile(Element parent, const char* name, const MediaProfile& profile, const Call& call) {
  Element element = parent.Add(name)
                        .Attribute("token", profile.token)
                        .Attribute("fixed", profile.fixed ? "true" : "false");
  element.Add("tt:Name", profile.name);
  if (!profile.videoSource.empty()) {
    AddVideoSourceConfiguration(element, "tt:VideoSourceConfiguration", call);
  }
  if (!profile.audioSource.empty()) {
    AddAudioSourceConfiguration(element, "tt:AudioSourceConfiguration", call);
  }
  // This version of the service has no word for H.265.
  if (const Encoder* encoder = call.camera.settings.FindEncoder(profile.encoder);
      encoder != nullptr && encoder->encoding != "H265") {
    AddEncoder(element, "tt:VideoEncoderConfiguration", *encoder, call.camera.settings);
  }
  if (!profile.audioEncoder.empty()) {
    AddAudioEncoderConfiguration(element, "tt:AudioEncoderConfiguration", call);
  }
  if (call.camera.camera.ptz) {
    AddPtzConfiguration(element, "tt:PTZConfiguration");
  }
  if (!profile.metadata.empty()) {
    AddMetadataConfiguration(element, "tt:MetadataConfiguration", call);
  }
}

void GetProfiles(Call& call) {
  for (const MediaProfile& profile : call.camera.settings.profiles) {
    AddProfile(call.answer, "trt:Profiles", profile, call);
  }
}

void GetProfile(Call& call) {
  AddProfile(call.answer, "trt:Profile", ProfileOf(call), call);
}

void CreateProfile(Call& call) {
  CameraSettings& settings = call.camera.settings;
  MediaProfile profile;
  Read(call.request, "Name", &profile.name);
  Read(call.request, "Token", &profile.token);
  if (profile.name.empty()) {
    InvalidValue("a profile without a name");
  }
  if (settings.profiles.size() == kMaxProfiles) {
    throw SoapFault{"ter:Action", "ter:MaxNVTProfiles", "The camera holds no more profiles", true};
  }
  if (settings.FindProfile(profile.token) != nullptr) {
    throw SoapFault{"ter:InvalidArgVal", "ter:ProfileExists", "This token is taken"};
  }
  for (int number = 1; profile.token.empty(); ++number) {
    const std::string token = "Profile" + std::to_string(number);
    if (settings.FindProfile(token) == nullptr) {
      profile.token = token;
    }
  }
  settings.profiles.push_back(profile);
  AddProfile(call.answer, "trt:Profile", profile, call);
}

void DeleteProfile(Call& call) {
  const MediaProfile& profile = ProfileOf(call);
  if (profile.fixed) {
    throw SoapFault{"ter:Action", "ter:DeletionOfFixedProfile", "The profile is fixed"};
  }
  std::erase_if(call.camera.settings.profiles,
                [token = profile.token](const MediaProfile& each) { return each.token == token; });
}

// Puts the configuration that the request names into its profile.
void AddToProfile(Call& call, std::string MediaProfile::*member, const std::string& token) {
  MediaProfile& profile = ProfileOf(call);
  if (TextAt(call.request, "ConfigurationToken") != token) {
    NoConfiguration();
  }
  profile.*member = token;
}

void AddEncoderToProfile(Call& call) {
  const std::string token = TextAt(call.request, "ConfigurationToken").value_or("");
  if (call.camera.settings.FindEncoder(token) == nullptr) {
    NoConfiguration();
  }
  AddToProfile(call, &MediaProfile::encoder, token);
}

void GetStreamUri(Call& call) {
  const MediaProfile& profile = ProfileOf(call);
  const Encoder* encoder = call.camera.settings.FindEncoder(profile.encoder);
  if (profile.videoSource.empty() || encoder == nullptr || !encoder->enabled) {
    throw SoapFault{"ter:Action", "ter:IncompleteConfiguration", "The profile streams nothing",
                    true};
  }
  std::string stream;
  ReadWord(call.request, "StreamSetup/Stream", {"RTP-Unicast"}, &stream);
  const auto number = static_cast<int>(encoder - call.camera.settings.encoders.data()) + 1;
  Element uri = call.answer.Add("trt:MediaUri");
  uri.Add("tt:Uri", call.rtsp + StreamOptions(call.camera.camera, *encoder, number).path);
  uri.Add("tt:InvalidAfterConnect", false);
  uri.Add("tt:InvalidAfterReboot", false);
  uri.Add("tt:Timeout", "PT0S");
}

void GetVideoSources(Call& call) {
  const Encoder& first = call.camera.settings.encoders.front();
  Element source = call.answer.Add("trt:VideoSources").Attribute("token", kVideoSource);
  source.Add("tt:Framerate", call.camera.settings.Is50Hz() ? 50 : 60);
  AddResolution(source, "tt:Resolution", first.width, first.height);
}

bool HasAudio(const Call& call) {
  return call.camera.camera.audio != AudioCodec::kNone;
}

void GetAudioSources(Call& call) {
  if (HasAudio(call)) {
    call.answer.Add("trt:AudioSources").Attribute("token", kAudioSource).Add("tt:Channels", 1);
  }
}

void GetAudioEncoderConfigurations(Call& call) {
  if (HasAudio(call)) {
    AddAudioEncoderConfiguration(call.answer, "trt:Configurations", call);
  }
}

// Kept and read back: the stream's sound stays what the command line made it.
void SetAudioEncoderConfiguration(Call& call) {
  const xmlNode* configuration = Child(call.request, "Configuration");
  if (!HasAudio(call) || Attribute(configuration, "token") != kAudioEncoder) {
    NoConfiguration();
  }
  AudioEncoder audio = call.camera.settings.audio;
  ReadWord(configuration, "Encoding", {"G711", "G726", "AAC"}, &audio.encoding);
  ReadNumber(configuration, "Bitrate", 1, 320000, &audio.bitrate);
  ReadNumber(configuration, "SampleRate", 1, 48000, &audio.sampleRate);
  call.camera.settings.audio = audio;
}

}  // namespace

void AddMediaOperations(Operations* operations) {
  const auto add = [operations](const char* name, std::function<void(Call&)> run) {
    (*operations)[{kMediaSpace, name}] = {false, std::move(run)};
  };
  const auto addToProfile = [&](const char* name, std::string MediaProfile::*member,
                                const std::string& token) {
    add(name, [=](Call& call) { AddToProfile(call, member, token); });
  };
  add("GetServiceCapabilities", [](Call& call) {
    call.answer.Add("trt:Capabilities")
        .Add("trt:ProfileCapabilities")
        .Attribute("MaximumNumberOfProfiles", std::to_string(kMaxProfiles));
  });
  add("GetProfiles", GetProfiles);
  add("GetProfile", GetProfile);
  add("CreateProfile", CreateProfile);
  add("DeleteProfile", DeleteProfile);
  addToProfile("AddVideoSourceConfiguration", &MediaProfile::videoSource,
               kVideoSourceConfiguration);
  addToProfile("AddMetadataConfiguration", &MediaProfile::metadata, kMetadata);
  add("AddVideoEncoderConfiguration", AddEncoderToProfile);
  add("RemoveVideoEncoderConfiguration", [](Call& call) { ProfileOf(call).encoder.clear(); });
  add("GetStreamUri", GetStreamUri);
  add("GetSnapshotUri", [](Call& call) {
    ProfileOf(call);
    call.answer.Add("trt:MediaUri").Add("tt:Uri", call.onvif + "snapshot");
  });
  add("GetVideoSources", GetVideoSources);
  add("GetVideoSourceConfigurations",
      [](Call& call) { AddVideoSourceConfiguration(call.answer, "trt:Configurations", call); });
  add("GetMetadataConfigurations",
      [](Call& call) { AddMetadataConfiguration(call.answer, "trt:Configurations", call); });
  add("GetAudioSources", GetAudioSources);
  add("GetAudioSourceConfigurations", [](Call& call) {
    if (HasAudio(call)) {
      AddAudioSourceConfiguration(call.answer, "trt:Configurations", call);
    }
  });
  add("GetAudioEncoderConfigurations", GetAudioEncoderConfigurations);
  add("SetAudioEncoderConfiguration", SetAudioEncoderConfiguration);
}

}  // namespace testcamera
