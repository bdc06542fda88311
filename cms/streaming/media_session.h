// MediaSession reads a session description (SDP, RFC 4566) down to what a viewer needs: at most one
// video and one audio stream, the presentation's control URL, its time range and the frame rate.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"

namespace cms {

inline constexpr std::size_t kMaxSDPControl = 128;
inline constexpr std::size_t kMaxSDPEncodingName = 64;
inline constexpr std::size_t kMaxSDPParameterSets = 256;
inline constexpr std::size_t kMaxSDPNalSets = 2048;
inline constexpr std::size_t kMaxSDPFormatParameters = 512;
inline constexpr std::size_t kMaxSDPLine = 4096;  // longer lines are ignored
inline constexpr std::uint16_t kNoPayloadType = 65535;

}  // namespace cms

// One media stream: what its section of the description says, and what SETUP adds. A plain record,
// copied freely; the texts are always zero-terminated. Sockets are not owned by it.
struct CMS_API _RTSPSUBSESSION_CONFIG {
  std::uint16_t payloadType = cms::kNoPayloadType;  // kNoPayloadType: there is no such stream
  char control[cms::kMaxSDPControl + 1] = {};  // the track's URL, absolute or relative, or empty
  char encodingName[cms::kMaxSDPEncodingName + 1] = {};  // upper case; empty when nothing named it
  std::uint32_t clockRate = 0;                           // Hz; 0 when nothing tells it
  std::uint32_t channels = 1;                            // of audio
  char parameterSets[cms::kMaxSDPParameterSets + 1] =
      {};  // H.264: Base64 texts separated by commas
  // H.264 and H.265: all parameter sets of the description, likewise.
  char nalSets[cms::kMaxSDPNalSets + 1] = {};
  bool orderNumbers = false;  // H.265: units have decoding order numbers (sprop-max-don-diff)
  // Pixels of the pictures, where a line tells them ("a=framesize:", "a=x-dimensions:"); else 0.
  std::uint16_t width = 0;
  std::uint16_t height = 0;

  // What the "a=fmtp:" line says of the payload type, as it stands there, without what does not
  // fit.
  char formatParameters[cms::kMaxSDPFormatParameters + 1] = {};

  std::uint16_t clientRtpPort = 0;  // the port of the "m=" line until SETUP chose one
  std::uint16_t clientRtcpPort = 0;
  std::uint16_t serverRtpPort = 0;
  std::uint16_t serverRtcpPort = 0;
  std::uint32_t source = 0;  // IPv4, host order: where SETUP says the packets come from; 0: unsaid
  int rtpSocket = -1;        // UDP: bound descriptors, -1 for none
  int rtcpSocket = -1;
  int rtpChannel = -1;  // interleaved: channel ids, -1 for none
  int rtcpChannel = -1;

  // The texts; a text longer than its field is cut.
  void SetControl(std::string_view text);
  void SetEncodingName(std::string_view text);  // turned to upper case
  // A list longer than the field loses its last, cut item, so that no half parameter set is passed
  // on.
  void SetParameterSets(std::string_view text);
  // Adds a list behind those that are there; what does not fit is left out as a whole.
  void AddNalSets(std::string_view text);
  // As SetParameterSets, of items separated by semicolons.
  void SetFormatParameters(std::string_view text);
};

// One description's session part. The parser is lenient: lines that it does not know are ignored,
// and it stops quietly at a media section that it does not expect. Not locked: one thread at a
// time.
class CMS_API MediaSession {
 public:
  // Sound in any encoding keeps its payload type: whoever asks for it knows what to do with each.
  void KeepAnySound(bool keep) { keepsAnySound_ = keep; }

  // Reads a whole description; the caller bounds its size. `video` and `audio` are cleared first. 1
  // when it has a video section, else 0. Sections behind one that is neither video nor audio, that
  // is not RTP/AVP or whose payload type is above 127 are not looked at. A later section of the
  // same kind replaces the earlier one. Audio in an encoding other than PCMU, PCMA and L16 gets
  // kNoPayloadType, unless KeepAnySound says otherwise.
  //
  // Where a section names several payload types, the encoding of the first is taken if it has an
  // "a=rtpmap:" line, else that of the last such line. When no line tells the clock rate it is that
  // of the RTP audio/video profile (RFC 3551): 44100 for types 10 and 11, 8000 for PCMU and PCMA,
  // 90000 for video. Values never carry white space or line ends. The last line need not be ended.
  int ParseDescription(std::string_view description, _RTSPSUBSESSION_CONFIG& video,
                       _RTSPSUBSESSION_CONFIG& audio);

  // Takes a session-level "a=control:" line; 1 when it was one, else 0.
  int parseSDPAttribute_control(std::string_view line);

  // The session's control URL; empty when the description has none.
  const std::string& ControlURL() const { return controlUrl_; }
  // What SETUP of a stream names: its control address, alone when that is a whole URL, else behind
  // the session's, which is the request's where the description gives none.
  std::string StreamURL(const std::string& requestUrl, const _RTSPSUBSESSION_CONFIG& stream) const;

  // The presentation's normal play time in seconds; negative when it was not given with both ends.
  double RangeStart() const { return rangeStart_; }
  double RangeEnd() const { return rangeEnd_; }

  // Frames per second as announced, 0 when it was not; values that are not within 0..1000 do not
  // count.
  float FrameRate() const { return frameRate_; }
  // Whether a rate was announced whose integer part is not 30.
  bool IsFrameRateNot30() const { return frameRateNot30_; }

 private:
  bool ParseRange(std::string_view line);
  bool ParseFrameRate(std::string_view line);

  std::string controlUrl_;
  double rangeStart_ = -1;
  double rangeEnd_ = -1;
  float frameRate_ = 0;
  bool frameRateNot30_ = false;
  bool keepsAnySound_ = false;
};
