// The site, the HTTP exchange and the signing of CIPCAM_Config_Utility.
#include "cms/ipcam/config_utility.h"

#include <poll.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "cms/ipcam/internal/certificate_rule.h"
#include "cms/ipcam/internal/http_exchange.h"
#include "cms/ipcam/internal/onvif_answers.h"
#include "cms/ipcam/internal/onvif_device.h"
#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/soap_envelope.h"
#include "cms/ipcam/internal/soap_operation.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/digest.h"
#include "cms/runtime/log.h"
#include "cms/runtime/text.h"
#include "cms/runtime/wide_text.h"

namespace {

// Twelve hexadecimal digits: no two programs that look for devices at one time use one identifier.
std::string RandomIdEnd() {
  std::array<unsigned char, 6> bytes{};
  static_cast<void>(getrandom(bytes.data(), bytes.size(), 0));
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const unsigned char byte : bytes) {
    text += {kDigits[byte >> 4], kDigits[byte & 15]};
  }
  return text;
}

}  // namespace

CIPCAM_Config_Utility::CIPCAM_Config_Utility() : messageIdEnd_(RandomIdEnd()) {}

CIPCAM_Config_Utility::~CIPCAM_Config_Utility() = default;

void CIPCAM_Config_Utility::SetSiteInfo(const std::wstring& address, int port,
                                        const std::wstring& userName,
                                        const std::wstring& password) {
  address_ = address;
  port_ = port;
  userName_ = userName;
  password_ = password;
  tls_.reset();
  clockKnown_ = false;
  clockOffset_ = 0;
  servicesAsked_ = false;
  mediaPath_.clear();
  imagingPath_.clear();
  onvif_ = {};
  resolution_ = {};
  Succeed();
}

void CIPCAM_Config_Utility::SetSiteInfo(const cms::OnvifAccess& access) {
  SetSiteInfo(cms::WideFromUtf8(access.host), cms::PortOf(access), cms::WideFromUtf8(access.user),
              cms::WideFromUtf8(access.password));
  if (access.tls) {
    tls_ = std::make_unique<const cms::CertificateRule>(
        cms::CertificateRule{access.check, access.fingerprint});
  }
}

bool CIPCAM_Config_Utility::Succeed() {
  error_.clear();
  result_ = cms::kHttpCommandOk;
  return true;
}

bool CIPCAM_Config_Utility::Fail(std::string_view what) {
  // Some of it comes from the network: one line of UTF-8 whatever was sent.
  error_ = cms::Utf8FromWide(cms::Plain(L"camera " + address_ + L":" + std::to_wstring(port_) +
                                        L": " + cms::WideFromUtf8(what)));
  result_ = cms::kHttpCommandFailed;
  return false;
}

bool CIPCAM_Config_Utility::IsSiteComplete() {
  if (address_.empty() || port_ == 0 || userName_.empty()) {
    return Fail("address, port and user name must be set first");
  }
  return true;
}

// True after the whole time, false when interrupted.
bool CIPCAM_Config_Utility::Wait(int milliseconds) {
  pollfd interrupted{.fd = interrupt_.Descriptor(), .events = POLLIN, .revents = 0};
  const std::uint64_t end = cms::TickMilliseconds() + static_cast<std::uint64_t>(milliseconds);
  for (;;) {
    const auto left = static_cast<std::int64_t>(end - cms::TickMilliseconds());
    const int woken = poll(&interrupted, 1, static_cast<int>(std::max<std::int64_t>(left, 0)));
    if (woken > 0) {
      return false;
    }
    if (woken == 0 || left <= 0) {
      return true;
    }
  }
}

void CIPCAM_Config_Utility::InitialHTTPCommandParam(_SEND_HTTP_COMMAND_PARAM& param) const {
  param = {};
  param.serverAddress = address_;
  param.userName = userName_;
  param.port = port_;
  param.password = password_;
}

int CIPCAM_Config_Utility::SendHTTPCommand(_SEND_HTTP_COMMAND_PARAM& param) {
  Exchange(param, "");
  return param.result;
}

// One exchange of an operation. What it reports becomes the error text, with the camera's own
// reason when it sent a SOAP fault. True for a whole "200 OK" answer.
bool CIPCAM_Config_Utility::Exchange(_SEND_HTTP_COMMAND_PARAM& param, std::string_view operation) {
  const cms::HttpExchangeReport report =
      cms::ExchangeHttp(param, interrupt_.Descriptor(), tls_.get());
  answered_ = report.answered;
  status_ = report.status;
  std::string error = report.error;
  if (error.empty() && report.cut) {
    error = "the answer is longer than " + std::to_string(param.answerCapacity - 1) + " bytes";
  }
  if (error.empty()) {
    return Succeed();
  }
  bool unauthorized = param.result == cms::kHttpCommandUnauthorized;
  if (!report.body.empty()) {
    const std::wstring fault = cms::Normalized(cms::WideFromUtf8(report.body));
    if (const std::string reason = cms::FaultReason(fault); !reason.empty()) {
      error += " (" + reason + ")";
    }
    unauthorized = unauthorized || cms::IsNotAuthorizedFault(fault);
  }
  if (cms::IsLogged(cms::LogLevel::kWarning)) {
    cms::Log(cms::LogLevel::kWarning, "onvif",
             cms::Utf8FromWide(address_) + ":" + std::to_string(port_) + ": " +
                 (operation.empty() ? "a request" : std::string(operation)) + " failed: " + error);
  }
  Fail(operation.empty() ? error : std::string(operation) + ": " + error);
  if (unauthorized) {
    result_ = cms::kHttpCommandUnauthorized;
  }
  return false;
}

bool CIPCAM_Config_Utility::Ask(_SEND_HTTP_COMMAND_PARAM& param, std::string_view operation,
                                unsigned capacity, std::wstring& answer) {
  const auto buffer = std::make_unique_for_overwrite<char[]>(capacity);
  param.answer = buffer.get();
  param.answerCapacity = capacity;
  if (!Exchange(param, operation)) {
    return false;
  }
  answer = cms::WideFromUtf8({param.answer, param.answerLength});
  return true;
}

int CIPCAM_Config_Utility::GeneratePasswordDigest(const std::wstring& password,
                                                  const std::wstring& created, std::wstring& digest,
                                                  std::wstring& nonce) const {
  if (password.empty() || created.empty()) {
    return 0;
  }
  const std::string raw = cms::Utf8FromWide(GenerateRandomString(16));
  const std::string text =
      cms::PasswordDigest(raw, cms::Utf8FromWide(created), cms::Utf8FromWide(password));
  if (text.empty()) {
    return 0;
  }
  digest = cms::WideFromUtf8(text);
  nonce = cms::WideFromUtf8(cms::Base64(raw));
  return 1;
}

// The digits of srand and rand, from a generator of our own: the client application's goes on
// undisturbed.
std::wstring CIPCAM_Config_Utility::GenerateRandomString(int count) const {
  random_data generator{};
  std::array<char, 128> state{};  // the size of the state behind rand
  initstate_r(static_cast<unsigned>(cms::WallSeconds()), state.data(), state.size(), &generator);
  std::wstring digits;
  for (int i = 0; i < count; ++i) {
    std::int32_t number = 0;
    random_r(&generator, &number);
    digits += static_cast<wchar_t>(L'0' + number % 10);
  }
  return digits;
}

bool CIPCAM_Config_Utility::ONVIF_Device_GetSystemDateAndTime() {
  constexpr cms::SoapOperation kOperation = cms::DeviceOperation(L"GetSystemDateAndTime");
  std::wstring answer;
  if (!Post(kOperation, cms::ClockEnvelope(), answer)) {
    return false;
  }
  const std::optional<std::int64_t> clock = cms::ParseSystemDateAndTime(answer);
  if (!clock) {
    return Fail("GetSystemDateAndTime: the answer holds no time");
  }
  clockOffset_ = *clock - cms::WallSeconds();
  clockKnown_ = true;
  return Succeed();
}

std::int64_t CIPCAM_Config_Utility::GenerateSynchronizeTimeWithDevice() {
  std::int64_t created = 0;
  Synchronize(created);
  return created;
}

// False when nothing can be sent: the camera cannot be reached, or Interrupt was called. A camera
// that is reached and does not tell its time is taken to have ours.
bool CIPCAM_Config_Utility::Synchronize(std::int64_t& created) {
  const bool reached = clockKnown_ || ONVIF_Device_GetSystemDateAndTime() || answered_;
  const bool waited = reached && Wait(SignedRequestWait());
  created = cms::WallSeconds() + clockOffset_ + 1;
  if (reached && !waited) {
    answered_ = false;
    return Fail("interrupted");
  }
  return reached;
}

bool CIPCAM_Config_Utility::Call(const cms::SoapOperation& operation, std::wstring_view body,
                                 std::wstring& answer) {
  if (!IsSiteComplete()) {
    return false;
  }
  const auto call = [&] {
    std::int64_t created = 0;
    if (!Synchronize(created)) {
      return false;
    }
    cms::UsernameToken token{
        .userName = userName_, .digest = {}, .nonce = {}, .created = cms::UtcText(created)};
    if (GeneratePasswordDigest(password_, token.created, token.digest, token.nonce) == 0) {
      return Fail("no request can be signed without a password");
    }
    return Post(operation, cms::SignedEnvelope(token, body), answer);
  };
  if (call()) {
    return true;
  }
  constexpr int kNotFound = 404;
  if (status_ != kNotFound || servicesAsked_) {
    return false;
  }
  const std::string missing = error_;
  const std::wstring tried = PathOf(operation);
  if (FindServices() && PathOf(operation) != tried) {
    return call();
  }
  error_ = missing;
  result_ = cms::kHttpCommandFailed;
  return false;
}

std::wstring CIPCAM_Config_Utility::PathOf(const cms::SoapOperation& operation) const {
  const bool imaging = operation.wsdl == cms::kImagingWsdl;
  const std::wstring& found = imaging ? imagingPath_ : mediaPath_;
  return found.empty() || (!imaging && operation.path != cms::kMediaPath)
             ? std::wstring(operation.path)
             : found;
}

bool CIPCAM_Config_Utility::FindServices() {
  servicesAsked_ = true;
  constexpr cms::SoapOperation kGetCapabilities = cms::DeviceOperation(L"GetCapabilities");
  std::wstring answer;
  if (!Call(kGetCapabilities,
            L"<tds:GetCapabilities><tds:Category>All</tds:Category></tds:GetCapabilities>",
            answer)) {
    return false;
  }
  mediaPath_ = cms::ParseServicePath(answer, L"tt:Media");
  imagingPath_ = cms::ParseServicePath(answer, L"tt:Imaging");
  return true;
}

bool CIPCAM_Config_Utility::Post(const cms::SoapOperation& operation, std::wstring envelope,
                                 std::wstring& answer) {
  if (!IsSiteComplete()) {
    return false;
  }
  _SEND_HTTP_COMMAND_PARAM param;
  InitialHTTPCommandParam(param);
  param.verb = cms::kHttpVerbPost;
  param.objectPath = PathOf(operation);
  param.headers =
      L"User-Agent: gSOAP/2.7\r\n"
      L"Content-Type: application/soap+xml; charset=utf-8; action=" +
      operation.Action() + L"\r\nContent-Length: " +
      std::to_wstring(cms::Utf8FromWide(envelope).size()) + L"\r\nConnection: close\r\n";
  param.body = std::move(envelope);
  const std::string name = cms::Utf8FromWide(operation.name);
  if (!Ask(param, name, kOnvifAnswerCapacity, answer)) {
    return false;
  }
  answer = cms::Normalized(answer);
  if (const std::string reason = cms::FaultReason(answer); !reason.empty()) {
    Fail(name + ": " + reason);
    if (cms::IsNotAuthorizedFault(answer)) {
      result_ = cms::kHttpCommandUnauthorized;
    }
    return false;
  }
  return true;
}

int CIPCAM_Config_Utility::ONVIF_GetStrByElement(std::wstring_view text, std::wstring_view opening,
                                                 std::wstring_view closing, std::wstring& value) {
  if (const auto found = cms::BetweenTags(text, opening, closing)) {
    value = *found;
  }
  return -1;
}

int CIPCAM_Config_Utility::ONVIF_GetStrInBrace(std::wstring_view text, std::wstring_view key,
                                               wchar_t open, wchar_t close, std::wstring& value) {
  value.clear();
  const std::size_t found = text.find(key);
  if (found == std::wstring_view::npos) {
    return -1;
  }
  // The search goes on behind the key, where an empty key is found at once.
  const std::size_t behind = found + key.size();
  const int index = cms::StrInBrace(text.substr(behind), {}, open, close, value);
  return index < 0 ? -1 : index + static_cast<int>(behind);
}
