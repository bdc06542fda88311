#include "cms/streaming/media_session.h"

#include <algorithm>
#include <cstring>

#include "cms/live/media/codec_id.h"
#include "cms/streaming/internal/text_scanner.h"

using cms::TextScanner;

namespace {

constexpr std::uint32_t kVideoClock = 90000;

// The static payload types of the RTP audio/video profile (RFC 3551, table 4 and 5). The names are
// in the upper case that names of rtpmap lines are turned to.
struct StaticPayload {
  std::uint16_t type;
  const char* name;
  std::uint32_t clockRate;
  std::uint32_t channels;
};
constexpr StaticPayload kStaticPayloads[] = {
    {0, "PCMU", 8000, 1},   {2, "G726-32", 8000, 1},    {3, "GSM", 8000, 1},
    {4, "G723", 8000, 1},   {5, "DVI4", 8000, 1},       {6, "DVI4", 16000, 1},
    {7, "LPC", 8000, 1},    {8, "PCMA", 8000, 1},       {9, "G722", 8000, 1},
    {10, "L16", 44100, 2},  {11, "L16", 44100, 1},      {12, "QCELP", 8000, 1},
    {14, "MPA", 90000, 1},  {15, "G728", 8000, 1},      {16, "DVI4", 11025, 1},
    {17, "DVI4", 22050, 1}, {18, "G729", 8000, 1},      {25, "CELB", kVideoClock, 1},
    {26, "JPEG", 90000, 1}, {28, "NV", kVideoClock, 1}, {31, "H261", kVideoClock, 1},
    {32, "MPV", 90000, 1},  {33, "MP2T", 90000, 1},     {34, "H263", kVideoClock, 1},
};

template <std::size_t N>
void Store(char (&field)[N], std::string_view text) {
  const std::size_t size = std::min(text.size(), N - 1);
  std::memset(field, 0, N);
  std::memcpy(field, text.data(), size);
}

// As many of the items as fit.
std::string_view WholeItems(std::string_view text, char separator, std::size_t most) {
  if (text.size() <= most) return text;
  const std::size_t end = text.rfind(separator, most);
  return text.substr(0, end == std::string_view::npos ? 0 : end);
}

enum class Kind { kNone, kVideo, kAudio };

struct MediaLine {
  Kind kind = Kind::kNone;
  std::uint32_t port = 0;
  std::uint32_t payloadType = 0;
};

MediaLine ParseMediaLine(std::string_view line) {
  MediaLine media;
  std::string_view name;
  std::uint32_t ports = 0;
  TextScanner scan = TextScanner(line).Literal("m=").Word(name, line.size()).Unsigned(media.port);
  TextScanner plain = scan;
  if (!plain.Literal(" RTP/AVP ").Unsigned(media.payloadType).Matched()) {
    scan.Literal("/").Unsigned(ports).Literal(" RTP/AVP ").Unsigned(media.payloadType);
    if (!scan.Matched()) return {};
  }
  if (media.payloadType > 127) return {};
  if (name == "video") media.kind = Kind::kVideo;
  if (name == "audio") media.kind = Kind::kAudio;
  return media;
}

// The encoding of a stream comes from its own payload type's line, or else from any other's.
bool ParseRtpmap(std::string_view line, _RTSPSUBSESSION_CONFIG& stream, bool& ownTypeSeen) {
  std::uint32_t type = 0;
  std::uint32_t clockRate = 0;
  std::uint32_t channels = 1;
  std::string_view name;
  const TextScanner head = TextScanner(line).Literal("a=rtpmap: ").Unsigned(type).Literal(" ");
  TextScanner withClock = head;
  withClock.Until(name, "/", cms::kMaxSDPEncodingName).Literal("/").Unsigned(clockRate);
  if (withClock.Matched()) {
    withClock.Literal("/").Unsigned(channels);
  } else {
    TextScanner nameOnly = head;
    if (!nameOnly.Word(name, cms::kMaxSDPEncodingName).Matched()) return false;
  }
  const bool ownType = type == stream.payloadType;
  if (ownType || !ownTypeSeen) {
    stream.SetEncodingName(name);
    stream.clockRate = clockRate;
    stream.channels = channels;
  }
  ownTypeSeen |= ownType;
  return true;
}

bool ParseControl(std::string_view line, _RTSPSUBSESSION_CONFIG& stream) {
  std::string_view control;
  if (!TextScanner(line).Literal("a=control: ").Word(control, cms::kMaxSDPControl).Matched())
    return false;
  stream.SetControl(control);
  return true;
}

// RFC 7798, 7.1.
void ParseH265Parameter(std::string_view parameter, _RTSPSUBSESSION_CONFIG& stream) {
  std::string_view name;
  std::string_view value;
  TextScanner scan(parameter);
  scan.Literal(" ")
      .Until(name, "= \t", cms::kMaxSDPLine)
      .Literal(" = ")
      .Until(value, " \t\r\n", cms::kMaxSDPLine);
  if (!scan.Matched()) return;
  if (name == "sprop-vps" || name == "sprop-sps" || name == "sprop-pps") {
    stream.AddNalSets(value);
  } else if (name == "sprop-max-don-diff") {
    stream.orderNumbers = value.find_first_not_of('0') != std::string_view::npos;
  }
}

bool ParseFmtp(std::string_view line, _RTSPSUBSESSION_CONFIG& stream) {
  constexpr std::string_view kStart = "a=fmtp:";
  if (!line.starts_with(kStart)) return false;
  line.remove_prefix(kStart.size());
  std::uint32_t type = 0;
  if (TextScanner scan = TextScanner(line).Unsigned(type); scan.Matched()) line = scan.Rest();
  line = line.substr(0, line.find_first_of("\r\n"));
  if (type == stream.payloadType) stream.SetFormatParameters(cms::Trim(line));
  while (!line.empty()) {
    const std::size_t end = line.find(';');
    std::string_view value;
    TextScanner parameter(line.substr(0, end));
    parameter.Literal(" sprop-parameter-sets = ").Until(value, " \t\r\n", cms::kMaxSDPLine);
    if (parameter.Matched()) {
      stream.SetParameterSets(value);
      stream.AddNalSets(value);
    } else {
      ParseH265Parameter(line.substr(0, end), stream);
    }
    line.remove_prefix(end == std::string_view::npos ? line.size() : end + 1);
  }
  return true;
}

// RFC 6064, 3.3, and its elder, which servers of the QuickTime family write.
bool ParsePictureSize(std::string_view line, _RTSPSUBSESSION_CONFIG& stream) {
  constexpr std::uint32_t kLargest = 0xFFFF;
  std::uint32_t type = stream.payloadType;
  std::uint32_t width = 0;
  std::uint32_t height = 0;
  TextScanner scan = TextScanner(line).Literal("a=framesize: ").Unsigned(type);
  scan.Literal(" ").Unsigned(width).Literal("-").Unsigned(height);
  if (!scan.Matched()) {
    scan = TextScanner(line).Literal("a=x-dimensions: ").Unsigned(width);
    scan.Literal(" , ").Unsigned(height);
    if (!scan.Matched()) return false;
  }
  if (type == stream.payloadType && width <= kLargest && height <= kLargest) {
    stream.width = static_cast<std::uint16_t>(width);
    stream.height = static_cast<std::uint16_t>(height);
  }
  return true;
}

void NameStaticPayload(_RTSPSUBSESSION_CONFIG& stream) {
  if (stream.encodingName[0] != '\0') return;
  for (const StaticPayload& entry : kStaticPayloads) {
    if (entry.type != stream.payloadType) continue;
    stream.SetEncodingName(entry.name);
    stream.clockRate = entry.clockRate;
    stream.channels = entry.channels;
  }
}

bool IsSupportedAudio(std::string_view name) {
  switch (cms::CodecOfEncodingName(name)) {
    case cms::CMS_CODEC_PCM_MULAW:
    case cms::CMS_CODEC_PCM_ALAW:
    case cms::CMS_CODEC_PCM_S16BE:
      return true;
    default:
      return false;
  }
}

}  // namespace

void _RTSPSUBSESSION_CONFIG::SetControl(std::string_view text) {
  Store(control, text);
}

void _RTSPSUBSESSION_CONFIG::SetEncodingName(std::string_view text) {
  Store(encodingName, text);
  for (char& c : encodingName) c = cms::UpperCase(c);
}

void _RTSPSUBSESSION_CONFIG::SetParameterSets(std::string_view text) {
  Store(parameterSets, WholeItems(text, ',', cms::kMaxSDPParameterSets));
}

void _RTSPSUBSESSION_CONFIG::SetFormatParameters(std::string_view text) {
  Store(formatParameters, WholeItems(text, ';', cms::kMaxSDPFormatParameters));
}

void _RTSPSUBSESSION_CONFIG::AddNalSets(std::string_view text) {
  const std::size_t used = std::strlen(nalSets);
  const std::size_t comma = used > 0 ? 1 : 0;
  if (text.empty() || used + comma + text.size() > cms::kMaxSDPNalSets) return;
  if (comma != 0) nalSets[used] = ',';
  std::memcpy(nalSets + used + comma, text.data(), text.size());
}

int MediaSession::ParseDescription(std::string_view description, _RTSPSUBSESSION_CONFIG& video,
                                   _RTSPSUBSESSION_CONFIG& audio) {
  const bool keepsAnySound = keepsAnySound_;
  *this = MediaSession();
  keepsAnySound_ = keepsAnySound;
  video = _RTSPSUBSESSION_CONFIG();
  audio = _RTSPSUBSESSION_CONFIG();

  bool foundVideo = false;
  bool ownTypeSeen = false;
  _RTSPSUBSESSION_CONFIG* stream = nullptr;  // null in the session part
  std::string_view line;
  while (cms::TakeLine(description, line)) {
    if (line.size() > cms::kMaxSDPLine) continue;
    if (line.starts_with('m')) {
      const MediaLine media = ParseMediaLine(line);
      if (media.kind == Kind::kNone) break;
      foundVideo |= media.kind == Kind::kVideo;
      stream = media.kind == Kind::kVideo ? &video : &audio;
      *stream = _RTSPSUBSESSION_CONFIG();
      stream->clientRtpPort = static_cast<std::uint16_t>(media.port);
      stream->payloadType = static_cast<std::uint16_t>(media.payloadType);
      ownTypeSeen = false;
    } else if (!stream) {
      if (!parseSDPAttribute_control(line)) ParseRange(line);
    } else if (!ParseRtpmap(line, *stream, ownTypeSeen) && !ParseControl(line, *stream) &&
               !ParseFmtp(line, *stream) && !ParsePictureSize(line, *stream)) {
      ParseFrameRate(line);
    }
  }

  NameStaticPayload(video);
  NameStaticPayload(audio);
  if (foundVideo && video.clockRate == 0) video.clockRate = kVideoClock;
  if (!keepsAnySound_ && !IsSupportedAudio(audio.encodingName)) {
    audio.payloadType = cms::kNoPayloadType;
  } else if (audio.clockRate == 0) {
    const bool l16 = cms::CodecOfEncodingName(audio.encodingName) == cms::CMS_CODEC_PCM_S16BE;
    audio.clockRate = l16 ? 44100 : 8000;
  }
  return foundVideo ? 1 : 0;
}

int MediaSession::parseSDPAttribute_control(std::string_view line) {
  std::string_view url;
  if (!TextScanner(line).Literal("a=control: ").Word(url, line.size()).Matched()) return 0;
  controlUrl_ = url;
  return 1;
}

bool MediaSession::ParseRange(std::string_view line) {
  double start = 0;
  double end = 0;
  TextScanner scan(line);
  scan.Literal("a=range: npt = ").Number(start).Literal(" - ").Number(end);
  if (!scan.Matched()) return false;
  rangeStart_ = start;
  rangeEnd_ = end;
  return true;
}

bool MediaSession::ParseFrameRate(std::string_view line) {
  double rate = 0;
  std::uint32_t whole = 0;
  if (!TextScanner(line).Literal("a=framerate: ").Number(rate).Matched()) {
    if (!TextScanner(line).Literal("a=x-framerate: ").Unsigned(whole).Matched()) return false;
    rate = whole;
  }
  if (rate < 0 || rate > 1000) return false;
  frameRate_ = static_cast<float>(rate);
  frameRateNot30_ = static_cast<int>(frameRate_) != 30;
  return true;
}

std::string MediaSession::StreamURL(const std::string& requestUrl,
                                    const _RTSPSUBSESSION_CONFIG& stream) const {
  std::string control = stream.control;
  const std::size_t colon = control.find(':');
  if (colon != std::string::npos && colon < control.find('/')) {
    return control;
  }
  const std::string& base = controlUrl_.empty() || controlUrl_ == "*" ? requestUrl : controlUrl_;
  if (control.empty()) {
    return base;  // the only stream there is (RFC 2326, C.1.1)
  }
  const bool needsSlash = !base.ends_with('/') && !control.starts_with('/');
  return base + (needsSlash ? "/" : "") + control;
}
