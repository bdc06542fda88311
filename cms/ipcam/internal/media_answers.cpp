#include "cms/ipcam/internal/media_answers.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <utility>

#include "cms/ipcam/capability_tables.h"
#include "cms/ipcam/internal/tag_search.h"

namespace cms {
namespace {

bool Names(std::wstring_view answer, std::wstring_view name) {
  return answer.find(name) != std::wstring_view::npos;
}

// The second version writes MIME subtypes of RTP: "MP4A-LATM" and "MPEG4-GENERIC" are AAC, "PCMU"
// is G.711.
std::wstring SoundEncoding(const std::wstring& name) {
  if (name.starts_with(L"MP4A") || name.starts_with(L"MPEG4")) {
    return L"AAC";
  }
  return name.starts_with(L"PCM") ? L"G711" : name;
}

// The numbers between blanks of an attribute such as "25 12.5".
std::vector<double> NumbersOf(std::wstring_view list) {
  std::vector<double> numbers;
  std::string narrow;
  for (const wchar_t c : list) {
    narrow.push_back(c < 0x80 ? static_cast<char>(c) : '?');
  }
  const char* at = narrow.data();
  const char* const end = at + narrow.size();
  while (at != end) {
    double number = 0;
    const auto [behind, error] = std::from_chars(at, end, number);
    if (error != std::errc()) {
      ++at;
      continue;
    }
    if (number >= 0 && number <= 1e6) {
      numbers.push_back(number);
    }
    at = behind;
  }
  return numbers;
}

std::optional<stRange> RangeOfList(std::wstring_view list) {
  const std::vector<double> numbers = NumbersOf(list);
  if (numbers.empty()) {
    return std::nullopt;
  }
  return stRange{std::ranges::min(numbers), std::ranges::max(numbers)};
}

std::vector<std::wstring> WordsOf(std::wstring_view list) {
  std::vector<std::wstring> words;
  while (!list.empty()) {
    const std::wstring_view word = list.substr(0, list.find(L' '));
    list.remove_prefix(std::min(word.size() + 1, list.size()));
    if (!word.empty()) {
      words.emplace_back(word);
    }
  }
  return words;
}

stMulticastConfiguration Multicast(std::wstring_view block) {
  stMulticastConfiguration multicast;
  if (const std::wstring address = TextOf(block, L"tt:IPv4Address"); !address.empty()) {
    multicast.address = address;
  }
  multicast.port = IntegerOf(block, L"tt:Port");
  multicast.ttl = IntegerOf(block, L"tt:TTL", multicast.ttl);
  multicast.autoStart = TruthOf(block, L"tt:AutoStart");
  return multicast;
}

stResolution ResolutionOf(std::wstring_view block) {
  return {IntegerOf(block, L"tt:Width"), IntegerOf(block, L"tt:Height")};
}

stVideoEncoderConfiguration VideoEncoder(std::wstring_view block) {
  stVideoEncoderConfiguration encoder;
  encoder.token = Token(block);
  encoder.name = TextOf(block, L"tt:Name");
  encoder.useCount = IntegerOf(block, L"tt:UseCount");
  encoder.encoding = TextOf(block, L"tt:Encoding");
  if (encoder.encoding == L"MJPEG") {  // some cameras' word for what ONVIF calls JPEG
    encoder.encoding = L"JPEG";
  }
  encoder.resolution = ResolutionOf(ElementContent(block, L"tt:Resolution"));
  encoder.quality = NumberOf(block, L"tt:Quality").value_or(0);
  encoder.frameRateLimit = IntegerOf(block, L"tt:FrameRateLimit");
  encoder.encodingInterval = IntegerOf(block, L"tt:EncodingInterval", encoder.encodingInterval);
  encoder.bitrateLimit = IntegerOf(block, L"tt:BitrateLimit");
  encoder.govLength = IntegerOf(block, L"tt:GovLength");
  encoder.h264Profile = TextOf(block, L"tt:H264Profile");
  if (const std::vector<double> group = NumbersOf(AttributeOf(block, L"GovLength"));
      !group.empty()) {  // of the second version
    encoder.govLength = static_cast<int>(group.front());
    encoder.h264Profile = AttributeOf(block, L"Profile");
  }
  encoder.multicast = Multicast(ElementContent(block, L"tt:Multicast"));
  if (const std::wstring timeout = TextOf(block, L"tt:SessionTimeout"); !timeout.empty()) {
    encoder.sessionTimeout = timeout;
  }
  return encoder;
}

stAudioEncoderConfiguration AudioEncoder(std::wstring_view block) {
  return {.token = Token(block),
          .name = TextOf(block, L"tt:Name"),
          .encoding = SoundEncoding(TextOf(block, L"tt:Encoding")),
          .bitrate = IntegerOf(block, L"tt:Bitrate"),
          .sampleRate = IntegerOf(block, L"tt:SampleRate")};
}

// By what names the versions of the service tell a profile.
struct ProfileElements {
  std::wstring_view profile;
  std::wstring_view name;
  std::wstring_view videoSource;
  std::wstring_view videoEncoder;
  std::wstring_view audioEncoder;
  std::wstring_view metadata;
};
constexpr ProfileElements kMedia1{L"trt:Profiles",
                                  L"tt:Name",
                                  L"tt:VideoSourceConfiguration",
                                  L"tt:VideoEncoderConfiguration",
                                  L"tt:AudioEncoderConfiguration",
                                  L"tt:MetadataConfiguration"};
constexpr ProfileElements kMedia2{L"tr2:Profiles",     L"tr2:Name",         L"tr2:VideoSource",
                                  L"tr2:VideoEncoder", L"tr2:AudioEncoder", L"tr2:Metadata"};

stVideoProfile Profile(std::wstring_view block, const ProfileElements& elements) {
  stVideoProfile profile;
  profile.token = Token(block);
  profile.name = TextOf(block, elements.name);
  std::wstring_view part;
  if (std::wstring_view rest = block; TakeElement(rest, elements.videoSource, part)) {
    profile.videoSourceConfigurationToken = Token(part);
    profile.videoSourceToken = TextOf(part, L"tt:SourceToken");
  }
  if (std::wstring_view rest = block; TakeElement(rest, elements.videoEncoder, part)) {
    profile.videoEncoder = VideoEncoder(part);
  }
  if (std::wstring_view rest = block; TakeElement(rest, elements.audioEncoder, part)) {
    profile.audioEncoder = AudioEncoder(part);
  }
  if (std::wstring_view rest = block; TakeElement(rest, elements.metadata, part)) {
    profile.metadataConfigurationToken = Token(part);
  }
  return profile;
}

std::vector<stVideoProfile> Profiles(std::wstring_view answer, const ProfileElements& elements) {
  std::vector<stVideoProfile> profiles;
  for (std::wstring_view one; TakeElement(answer, elements.profile, one);) {
    if (stVideoProfile profile = Profile(one, elements); !profile.token.empty()) {
      profiles.push_back(std::move(profile));
    }
  }
  return profiles;
}

void AddCodec(std::wstring_view answer, std::wstring_view encoding,
              std::vector<stCodecOptions>& codecs) {
  const std::wstring name = L"tt:" + std::wstring(encoding);
  std::wstring_view rest = answer;
  std::wstring_view block;
  if (!TakeElement(rest, name, block)) {
    return;
  }
  stCodecOptions codec;
  codec.encoding = encoding;
  for (std::wstring_view sizes = block, one; TakeElement(sizes, L"tt:ResolutionsAvailable", one);) {
    codec.resolutions.push_back(ResolutionOf(one));
  }
  codec.frameRate = RangeOf(block, L"tt:FrameRateRange");
  codec.encodingInterval = RangeOf(block, L"tt:EncodingIntervalRange");
  codec.govLength = RangeOf(block, L"tt:GovLengthRange");
  codec.h264Profiles = TextsOf(block, L"tt:H264ProfilesSupported");
  // A second element of the codec, in the extension, tells the bit rates.
  std::wstring_view extension;
  codec.bitrate = TakeElement(rest, name, extension) ? RangeOf(extension, L"tt:BitrateRange")
                                                     : RangeOf(block, L"tt:BitrateRange");
  codecs.push_back(std::move(codec));
}

}  // namespace

bool ParseProfiles(std::wstring_view answer, std::vector<stVideoProfile>& profiles) {
  if (!Names(answer, L"trt:GetProfilesResponse")) {
    return false;
  }
  profiles = Profiles(answer, kMedia1);
  return true;
}

bool ParseMedia2Profiles(std::wstring_view answer, std::vector<stVideoProfile>& profiles) {
  if (!Names(answer, L"tr2:GetProfilesResponse")) {
    return false;
  }
  profiles = Profiles(answer, kMedia2);
  return true;
}

bool ParseStreamUri(std::wstring_view answer, std::wstring& uri) {
  for (const std::wstring_view name : {L"tt:Uri", L"tr2:Uri"}) {
    if (std::wstring found = TextOf(answer, name); !found.empty()) {
      uri = std::move(found);
      return true;
    }
  }
  return false;
}

bool ParseVideoEncoderConfigurations(std::wstring_view answer,
                                     std::vector<stVideoEncoderConfiguration>& configurations) {
  if (!Names(answer, L"VideoEncoderConfigurationsResponse")) {
    return false;
  }
  configurations.clear();
  for (std::wstring_view one; TakeElement(answer, L"trt:Configurations", one);) {
    configurations.push_back(VideoEncoder(one));
  }
  return true;
}

bool ParseVideoEncoderOptions(std::wstring_view answer, stVideoEncoderOptions& options) {
  if (!Names(answer, L"<trt:Options")) {
    return false;
  }
  options.quality = RangeOf(answer, L"tt:QualityRange");
  options.codecs.clear();
  for (const std::wstring_view codec : CodecNames()) {
    AddCodec(answer, codec, options.codecs);
  }
  return true;
}

bool ParseMedia2EncoderOptions(std::wstring_view answer, stVideoEncoderOptions& options) {
  stVideoEncoderOptions read;
  for (std::wstring_view one; TakeElement(answer, L"tr2:Options", one);) {
    stCodecOptions codec;
    codec.encoding = TextOf(one, L"tt:Encoding");
    for (std::wstring_view sizes = one, size;
         TakeElement(sizes, L"tt:ResolutionsAvailable", size);) {
      codec.resolutions.push_back(ResolutionOf(size));
    }
    codec.bitrate = RangeOf(one, L"tt:BitrateRange");
    codec.govLength = RangeOfList(AttributeOf(one, L"GovLengthRange"));
    codec.frameRate = RangeOfList(AttributeOf(one, L"FrameRatesSupported"));
    codec.h264Profiles = WordsOf(AttributeOf(one, L"ProfilesSupported"));
    read.quality = RangeOf(one, L"tt:QualityRange");
    if (!codec.encoding.empty()) {
      read.codecs.push_back(std::move(codec));
    }
  }
  if (read.codecs.empty()) {
    return false;
  }
  read.configurationToken = options.configurationToken;
  options = std::move(read);
  return true;
}

bool ParseCreatedProfile(std::wstring_view answer, std::wstring& token) {
  std::wstring_view profile;
  if (!TakeElement(answer, L"trt:Profile", profile)) {
    return false;
  }
  const std::wstring found = Token(profile);
  if (found.empty()) {
    return false;
  }
  token = found;
  return true;
}

}  // namespace cms
