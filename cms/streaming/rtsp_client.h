// CMSRTSPClient: one live stream of one camera over RTSP 1.0 (RFC 2326).
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "cms/live/client_base.h"
#include "cms/live/kept_stream.h"
#include "cms/net/tls_parameters.h"
#include "cms/runtime/api.h"
#include "cms/streaming/io_group.h"
#include "cms/streaming/media_session.h"

namespace cms {
struct StreamFailure;

// How the media packets travel.
enum RTSPTransport : int {
  kRtspTransportUdp = 0,          // RTP over UDP unicast, a port pair for each stream
  kRtspTransportInterleaved = 1,  // RTP inside the RTSP connection
  kRtspTransportHttp = 2,         // the same inside HTTP, at the port of the camera's web server
  kRtspTransportMulticast = 3,    // RTP over UDP to a group, which the camera sends once for all
};

// Which address a configuration names: any kind other than kSiteKindUrl builds the URL
// "rtsp://address/path" from the address and the path.
inline constexpr int kSiteKindUrl = 10;  // the path is the complete URL

// Given to CMSRTSPClient::SetConfig, which copies it.
struct stRTSPClientConfig {
  int kind = kSiteKindUrl;
  int siteType = 10;     // see CMSClientBase::GetDRVTypeHeader
  int siteNumber = 0;    // from 0; shown to people from 1
  int streamNumber = 0;  // 0 to 3
  unsigned channel = 0;  // the channel of the client's array that the frames belong to
  // IPv4, host order. 0 with kSiteKindUrl: the URL's host is resolved at each opening.
  std::uint32_t address = 0;
  std::uint16_t port = 554;  // with kSiteKindUrl and address 0 the URL's port counts
  // "/live/1", or with kSiteKindUrl "rtsp[s]://[user:password@]host[:port]/path". Credentials in
  // the URL are used when the two fields below are empty, and never sent as part of it. A user
  // without a password is one.
  std::string path;
  std::string user;
  std::string password;
  int transport = kRtspTransportUdp;
  int group = kAutomaticGroup;  // key of the I/O thread pair
  int clockOffsetSeconds = 0;   // added to the arrival time in the frame headers
  // For looking the name up, and again for connecting: to all its addresses, TLS included.
  std::uint32_t connectTimeoutMs = 10'000;
  std::uint32_t answerTimeoutMs = 30'000;
  // The streams of today's cameras are received as they are: see docs/todays_cameras.md, which
  // tells what that is and what it is without.
  bool todaysCameras = true;
  // Of todaysCameras: bytes of a picture; larger ones are dropped and counted. Memory grows with
  // what arrives.
  std::size_t mostFrameBytes = std::size_t{8} << 20u;
  // Named workaround, without todaysCameras, for servers that send an access-unit delimiter before
  // each picture (every GStreamer pipeline with an h264parse, and some cameras): without it such a
  // stream delivers no frame at all. See H264RTPProcesser::SetIgnoreDelimiters.
  bool ignoreDelimiters = false;
  // Asks for the camera's audio backchannel (ONVIF streaming specification, 5.3), for
  // SendAudioData. A camera without one is viewed as usual.
  bool talkBack = false;
  // Logs in by Basic where a camera knows nothing better and the connection is not encrypted:
  // everybody on the way can read the password then.
  bool allowBasic = false;
  // With rtsps://: how the camera shows that it is the one that is meant. Cameras sign their
  // certificates themselves, as a rule: the status names the fingerprint of one that is refused,
  // for kPinned once it was compared with what the camera's own page shows.
  CertificateCheck certificate = CertificateCheck::kSystem;
  std::string certificateFingerprint;  // SHA-256, in hexadecimal, with or without colons
};

}  // namespace cms

// OPTIONS, DESCRIBE, SETUP of video and audio, PLAY; then frames. See CMSClientBase for the life
// and the threads of a client. OpenStream may take up to twice connectTimeoutMs plus
// answerTimeoutMs for each request, and that again where UDP makes room for TCP; CloseStream and
// StopPlay from another thread end it at once. A call at the wrong time returns 0 and says why in
// the status's detail. SetMustDecode waits for an opening, Pause and Resume wait for the camera's
// answer: none of them is called from inside a frame callback.
class CMS_API CMSRTSPClient : public CMSClientBase, private cms::KeptStream {
 public:
  CMSRTSPClient();
  ~CMSRTSPClient() override;

  // `config` is an stRTSPClientConfig. 0 when the URL cannot be used (the status says why), and
  // while the stream is open.
  int SetConfig(void* config) override;
  // The camera is asked to play, but IsClientPlaying is 0 until Play.
  int OpenStream() override;
  int CloseStream() override;
  // From Play on frames are delivered and the stream is kept, see CMSClientBase.
  int Play() override;
  // No frame is delivered any more, and the stream is not kept; what is open stays open.
  int StopPlay() override;
  // Sends PAUSE. A paused stream stays paused: it is kept alive, is not taken for dead, and when
  // the connection is lost it is opened up to PLAY and waits for Resume. 0 when it is not open or
  // the camera refuses.
  int Pause() override;
  // Sends PLAY again. While a paused camera is away the result is 1 as well: it plays when it is
  // back.
  int Resume() override;
  int ChangeRecordFile() override;
  int ChangeRecordPath(const wchar_t* path) override;
  using CMSClientBase::ChangeRecordPath;
  void SetMustDecode(int decode) override;

  // Sends a block of sound in the format of GetTalkFormat to a camera that is playing; returns at
  // once. The caller paces the blocks. The bytes that were taken: 0 when the camera has no
  // backchannel or is not connected.
  int SendAudioData(unsigned char* data, int length) override;
  // What the camera wants to hear: 1, or 0 while that is not known or there is no backchannel.
  int GetTalkFormat(tCMSAudioPlayerConfig* format) const;

  double GetAudioStreamLossRate() const;  // percent, of the last whole second

  // How the packets travel now: RTSPTransport. Not always as configured: see docs/rtsp.md.
  int GetTransport() const;

  // Names of the description's encodings, such as "H264" and "PCMU"; empty while unknown or absent.
  std::string GetVideoEncoding() const;
  std::string GetAudioEncoding() const;

 private:
  class CMS_HIDDEN FrameSource;
  class CMS_HIDDEN Session;

  bool OpenForKeeping() override;
  void CloseForKeeping() override;
  cms::ConnectionFault KeepAlive(std::uint64_t now, std::uint64_t* nextInMs) override;
  cms::StreamCounts Counts() const override;

  // The steps of an opening: each one sends its request, waits for the answer and tells whether it
  // succeeded; a failure has set the fault.
  int Option() CMS_REQUIRES(lock_);
  int Describe() CMS_REQUIRES(lock_);
  int SetupVideo() CMS_REQUIRES(lock_);
  int SetupAudio() CMS_REQUIRES(lock_);
  int PlayMedia() CMS_REQUIRES(lock_);
  void TearDown() CMS_REQUIRES(lock_);

  // What they consist of. The senders use the next CSeq and the authorization of the moment.
  int SendOption() CMS_REQUIRES(lock_);
  int SendDescribe() CMS_REQUIRES(lock_);
  int SendSetup(const std::string& url, _RTSPSUBSESSION_CONFIG& config) CMS_REQUIRES(lock_);
  int SendPlayMedia() CMS_REQUIRES(lock_);
  int SendPause() CMS_REQUIRES(lock_);
  int SendTearDown() CMS_REQUIRES(lock_);
  int GetResponse(std::string& response, unsigned timeoutMs) CMS_REQUIRES(lock_);
  static unsigned CheckRTSPResponseCode(const std::string& response);
  int ParserSetupResponse(const std::string& response, _RTSPSUBSESSION_CONFIG& config)
      CMS_REQUIRES(lock_);
  std::string ConstructSubsessionURL(const MediaSession& session,
                                     const _RTSPSUBSESSION_CONFIG& config) const
      CMS_REQUIRES(lock_);
  int CreateSubSessionSocket(_RTSPSUBSESSION_CONFIG& config) CMS_REQUIRES(lock_);
  std::string CreateAuthStr(const char* method, const std::string& url) CMS_REQUIRES(lock_);

  bool OpenLocked(bool delivers) CMS_REQUIRES(lock_);
  bool OpenOnce(bool delivers) CMS_REQUIRES(lock_);
  void ChangeTransport(int transport) CMS_REQUIRES(lock_);
  void CloseLocked() CMS_REQUIRES(lock_);
  bool StartDelivery() CMS_REQUIRES(lock_);
  void StopDelivery() CMS_REQUIRES(lock_);
  void TakeDescription() CMS_REQUIRES(lock_);
  cms::CMSCodecID VideoCodec() const;
  void InitialChannelCodec() CMS_REQUIRES(lock_);
  bool Succeeded(const cms::StreamFailure& failure) CMS_REQUIRES(lock_);
  void FailUse(const std::string& what) CMS_REQUIRES(lock_);

  struct CMS_HIDDEN Life;
  const std::unique_ptr<Life> life_ CMS_PT_GUARDED_BY(lock_);
  struct CMS_HIDDEN Shown;
  const std::unique_ptr<Shown> shown_;
};
