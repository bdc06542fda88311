// CIPCAM_Config_Utility: reads and changes the configuration of one IP camera, and finds cameras.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/discovered_device.h"
#include "cms/ipcam/http_command.h"
#include "cms/ipcam/onvif_access.h"
#include "cms/ipcam/onvif_types.h"
#include "cms/ipcam/param_types.h"
#include "cms/runtime/api.h"
#include "cms/runtime/wake_up.h"

namespace cms {
struct CertificateRule;
struct SoapOperation;
}  // namespace cms

// Speaks ONVIF (SOAP 1.2 over HTTP, WS-Security UsernameToken) and the parameter CGI with the one
// camera that SetSiteInfo names, and WS-Discovery with all of them.
//
// One thread at a time uses an object; Interrupt alone may come from any thread. Every operation
// blocks: a signed ONVIF request takes a second at least, as cameras compare its time of creation
// with their clock and many refuse two of one second; discovery listens for 25 s.
//
// Operations return true when the camera did what was asked. After false LastError() tells why and
// LastResult() whether the camera refused the user; what had been read before stays. Nothing is
// sent while the site has no address, port or user name. No error text holds a password.
class CMS_API CIPCAM_Config_Utility {
 public:
  // Bytes of the largest answer, with a zero: of the parameter CGI, and of ONVIF, where a
  // recorder's profiles take 4 KiB each.
  static constexpr unsigned kAnswerCapacity = 65536;
  static constexpr unsigned kOnvifAnswerCapacity = 1 << 20;

  CIPCAM_Config_Utility();
  virtual ~CIPCAM_Config_Utility();
  CIPCAM_Config_Utility(const CIPCAM_Config_Utility&) = delete;
  CIPCAM_Config_Utility& operator=(const CIPCAM_Config_Utility&) = delete;

  // Another camera: what was read of the last one, its clock included, is forgotten.
  void SetSiteInfo(const std::wstring& address, int port, const std::wstring& userName,
                   const std::wstring& password);
  // The same of a camera that is asked over HTTPS where the access says so. Its login by HTTP is
  // the one of SendHTTPCommand, whatever allowBasic says.
  void SetSiteInfo(const cms::OnvifAccess& access);

  // One line of UTF-8 about the last operation that failed; empty when the last one succeeded (but
  // see GetAllONVIFConfig).
  const std::string& LastError() const { return error_; }
  int LastResult() const {
    return result_;
  }  // kHttpCommandOk, kHttpCommandUnauthorized or kHttpCommandFailed

  // Ends the wait of the operation in progress and fails it, and every later one, until
  // ResumeAfterInterrupt. Any thread may call it, and a signal handler.
  void Interrupt() { interrupt_.Signal(); }
  void ResumeAfterInterrupt() { interrupt_.Clear(); }

  // --- One HTTP exchange ----------------------------------------------------------------------
  // The defaults, with the site's address, port, user name and password.
  void InitialHTTPCommandParam(_SEND_HTTP_COMMAND_PARAM& param) const;
  // Sends the request with Basic credentials and stores the answer; returns param.result.
  int SendHTTPCommand(_SEND_HTTP_COMMAND_PARAM& param);

  // --- Signing --------------------------------------------------------------------------------
  // Password digest and nonce of the WS-Security UsernameToken profile 1.0, both in Base64. 1, or 0
  // when the password or the created text is empty. At most 255 bytes of each count.
  int GeneratePasswordDigest(const std::wstring& password, const std::wstring& created,
                             std::wstring& digest, std::wstring& nonce) const;
  // `count` decimal digits; those of calls within one second are equal.
  std::wstring GenerateRandomString(int count) const;
  // Asks the camera for its clock, unsigned, and keeps its distance from ours.
  bool ONVIF_Device_GetSystemDateAndTime();
  bool IsClockKnown() const { return clockKnown_; }
  std::int64_t ClockOffset() const { return clockOffset_; }  // seconds that the camera is ahead
  // Learns the camera's clock when it is not known yet, waits the second that every signed request
  // costs, and returns the time of creation for it: seconds since 1970-01-01 UTC of the camera's
  // clock, one second from now.
  std::int64_t GenerateSynchronizeTimeWithDevice();

  // --- Reading answers ------------------------------------------------------------------------
  // The text behind the first `opening` up to the first `closing` of the whole text; `value` stays
  // as it was when there is none or when `closing` lies before the value. Always -1. An opening tag
  // given without its ">" also matches one with attributes; these then begin the value.
  static int ONVIF_GetStrByElement(std::wstring_view text, std::wstring_view opening,
                                   std::wstring_view closing, std::wstring& value);
  // From the end of the first `key`: the text between the first `open` and the next `close` behind
  // it. The index before that close character, or -1 with an empty value when there is none.
  static int ONVIF_GetStrInBrace(std::wstring_view text, std::wstring_view key, wchar_t open,
                                 wchar_t close, std::wstring& value);

  // --- ONVIF: reading -------------------------------------------------------------------------
  // What the operations below have read so far.
  const cms::stONVIFConfiguration& ONVIFConfiguration() const { return onvif_; }

  // Reads all of it: 8 requests, one for each profile (its stream) and one for each encoder
  // configuration that a profile uses (its options). False when the device information or the
  // profiles cannot be read, when the camera answers no more, and as soon as it refuses the user
  // (LastResult is kHttpCommandUnauthorized): more requests could lock the account. What else it
  // does not answer is left empty, as cameras do not offer all of it; the result is true,
  // LastResult kHttpCommandOk, and LastError names the first of these refusals instead of being
  // empty.
  bool GetAllONVIFConfig();
  // Takes one answer into the configuration; `operation` is its ONVIF name, such as "GetProfiles".
  // False when the answer does not hold what it should, or the name is of none that is read.
  bool ParserAllONVIFData(std::wstring_view operation, const std::wstring& answer);

  bool GetDeviceInformation();
  bool GetVideoProfileONVIFConfig();  // profiles and video encoder configurations: 2 requests
  bool GetONVIFURI(const std::wstring& profileToken, std::wstring& uri);
  // Of the configuration in the profile; of any when both are empty.
  bool ONVIF_GetVideoEncoderConfigurationOptions(const std::wstring& configurationToken,
                                                 const std::wstring& profileToken,
                                                 cms::stVideoEncoderOptions& options);
  // The encoder configurations that the profile could use.
  bool ONVIF_GetUsableVideoEncoderConfiguration(
      const std::wstring& profileToken,
      std::vector<cms::stVideoEncoderConfiguration>& configurations);
  bool GetVideoPropertyONVIFConfig();  // imaging: options and settings of the first video source
  bool GetNetworkONVIFConfig();        // interfaces, gateway, name servers: 3 requests
  // Names of the first and the second profile that has video; empty before they are read, or
  // without such a profile.
  std::wstring GetMainStreamProfileName() const;
  std::wstring GetSubStreamProfileName() const;

  // --- ONVIF: changing ------------------------------------------------------------------------
  // H264 sends all fields, JPEG the resolution and the quality; other encodings are not set so.
  bool ONVIF_SetVideoEncoderConfiguration(const cms::stVideoEncoderConfiguration& configuration);
  // Encoding and quality of the configuration "Profile1", named "VideoEncoder1", of cameras that
  // have but one.
  bool ONVIF_SetVideoEncoderConfiguration(const std::wstring& encoding, double quality);
  bool ONVIF_SetAudioEncoderConfiguration(const cms::stAudioEncoderConfiguration& configuration);
  bool ONVIF_CreateProfile(const std::wstring& name, std::wstring& token);
  bool ONVIF_AddVideoSourceConfiguration(const std::wstring& profileToken,
                                         const std::wstring& configurationToken);
  bool ONVIF_AddVideoEncoderConfiguration(const std::wstring& profileToken,
                                          const std::wstring& configurationToken);
  bool ONVIF_AddMetadataConfiguration(const std::wstring& profileToken,
                                      const std::wstring& configurationToken);
  // Makes the camera send such a stream and returns where: of a profile that has it already, else
  // of the first one whose encoder can be set to it, else of a new profile "AutoStream".
  bool ONVIF_AutoStream(const cms::stAutoStream& wish, std::wstring& uri);

  // The items that are chosen, in the order of the schema.
  static std::wstring GenerateVideoPropertyONVIFBody(const cms::stImagingSettings& settings);
  bool SetVideoPropertyONVIFConfig(const cms::stImagingSettings& settings);
  // The interface comes last, as the camera may not be reached under its old address any more.
  bool SetNetworkInterfaceONVIFConfig(const cms::stNetworkSettings& settings);
  // Encoders, audio, imaging, network, in this order; ends at the first that fails.
  bool SetAllONVIFConfig(const cms::stONVIFChanges& changes);
  bool SetSystemFactoryDefault();  // "Hard": the network settings too

  // --- Parameter CGI --------------------------------------------------------------------------
  bool GetProdShortName(std::wstring& name);
  // All parameters of the groups, in the camera's order; of all groups when none is given.
  bool GetParameters(const std::vector<std::wstring>& groups,
                     std::vector<cms::stCameraParameter>& parameters);
  bool GetParameterOptions(
      std::vector<cms::stCameraParameter>& options);  // values joined by commas
  // Sends all in one request. What is not among the parameters that can be set, or a value of the
  // wrong kind, is refused before anything is sent.
  bool SetParameters(const std::vector<cms::stCameraParameter>& parameters);
  bool GetVideoResolutionAPIConfig();
  bool ParserResolutionAPIData(const std::wstring& answer);
  const cms::stResolutionConfiguration& ResolutionConfiguration() const { return resolution_; }
  // Keys joined by commas, one for each stream. True without a request when they are the camera's
  // already, as GetVideoResolutionAPIConfig read them.
  bool SetVideoResolutionAPIConfig(const std::wstring& combination);
  bool SetTVSystem(int index);  // of cms::VideoSystemNames

  // --- Discovery ------------------------------------------------------------------------------
  // Sends one WS-Discovery Probe to `target` (an IPv4 address; empty: the multicast group) and
  // listens for 25 s, or until Interrupt. True when it was sent, whatever was found.
  bool DoONVIFDeviceDiscovery(const std::string& target);
  // The listening part: takes every datagram that arrives on the UDP socket.
  void DoRecvResult(int socket);
  // Adds the devices of one answer to the list; false when there is none that is not in it already.
  bool ParserONVIFDiscoveryInfo(std::string_view answer);
  const std::vector<cms::stDiscoveredDevice>& DiscoveredDevices() const { return devices_; }

 protected:
  // Both are called on the thread that waits.
  virtual void OnDeviceFound(const cms::stDiscoveredDevice& device);  // does nothing
  // The wait before a signed request in milliseconds. A subclass that makes it shorter must know
  // that its cameras accept it.
  virtual int SignedRequestWait() const { return 1000; }

 private:
  bool Succeed();
  bool Fail(std::string_view what);
  bool IsSiteComplete();
  bool Wait(int milliseconds);
  bool Exchange(_SEND_HTTP_COMMAND_PARAM& param, std::string_view operation);
  // The same with room for the answer, and the answer's text.
  bool Ask(_SEND_HTTP_COMMAND_PARAM& param, std::string_view operation, unsigned capacity,
           std::wstring& answer);
  // Where the camera serves an operation; asks it for its services once they are not where
  // expected.
  std::wstring PathOf(const cms::SoapOperation& operation) const;
  bool FindServices();
  bool Synchronize(std::int64_t& created);
  // A signed request; the answer is in the spelling that tag searches expect.
  bool Call(const cms::SoapOperation& operation, std::wstring_view body, std::wstring& answer);
  bool Post(const cms::SoapOperation& operation, std::wstring envelope, std::wstring& answer);
  // A request whose answer belongs into the configuration, and taking such an answer.
  bool Read(const cms::SoapOperation& operation, std::wstring_view body);
  bool Take(std::wstring_view operation, std::wstring_view answer);
  bool Set(const cms::SoapOperation& operation, std::wstring_view body);
  bool FindVideoSource();
  bool SetUpEncoder(const cms::stAutoStream& wish, cms::stVideoEncoderConfiguration configuration,
                    const std::wstring& profileToken);
  bool AddProfile(const cms::stAutoStream& wish, std::wstring& profileToken);
  bool GetByCgi(std::wstring_view operation, std::wstring path, std::wstring& answer);

  std::wstring address_;
  int port_ = 0;
  std::wstring userName_;
  std::wstring password_;
  std::unique_ptr<const cms::CertificateRule> tls_;  // of HTTPS; nothing: HTTP
  bool clockKnown_ = false;
  std::int64_t clockOffset_ = 0;
  cms::stONVIFConfiguration onvif_;
  cms::stResolutionConfiguration resolution_;
  std::vector<cms::stDiscoveredDevice> devices_;
  std::string messageIdEnd_;
  std::string error_;
  bool answered_ = false;  // the camera, to the last exchange
  int status_ = 0;         // of that answer
  bool servicesAsked_ = false;
  std::wstring mediaPath_;    // empty: the usual one
  std::wstring imagingPath_;  // likewise
  int result_ = cms::kHttpCommandOk;
  cms::WakeUp interrupt_;
};
