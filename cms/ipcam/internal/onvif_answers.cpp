#include "cms/ipcam/internal/onvif_answers.h"

#include <algorithm>
#include <cstddef>
#include <ctime>

#include "cms/ipcam/capability_tables.h"
#include "cms/ipcam/internal/plain_text.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"

namespace cms {
namespace {

bool Holds(std::wstring_view answer, std::wstring_view name) {
  return answer.find(name) != std::wstring_view::npos;
}

// The modes of an options element: <tt:Mode> as often as there are.
std::vector<std::wstring> Modes(std::wstring_view answer, std::wstring_view name) {
  return TextsOf(ElementContent(answer, name), L"tt:Mode");
}

std::optional<std::wstring> Mode(std::wstring_view answer, std::wstring_view name) {
  std::wstring mode = TextOf(ElementContent(answer, name), L"tt:Mode");
  return mode.empty() ? std::nullopt : std::optional(std::move(mode));
}

}  // namespace

std::optional<std::int64_t> ParseSystemDateAndTime(std::wstring_view answer) {
  constexpr std::wstring_view kClock = L"<tds:SystemDateAndTime";  // with attributes or without
  const std::size_t found = answer.find(kClock);
  if (found == std::wstring_view::npos) {
    return std::nullopt;
  }
  answer.remove_prefix(found);
  // Some cameras tell their local time first.
  if (const std::size_t utc = answer.find(L"<tt:UTCDateTime"); utc != std::wstring_view::npos) {
    answer.remove_prefix(utc);
  }
  constexpr int kMissing = -1;
  std::tm fields{};
  fields.tm_hour = IntegerOf(answer, L"tt:Hour", kMissing);
  fields.tm_min = IntegerOf(answer, L"tt:Minute", kMissing);
  fields.tm_sec = IntegerOf(answer, L"tt:Second", kMissing);
  fields.tm_year = IntegerOf(answer, L"tt:Year", kMissing) - 1900;
  fields.tm_mon = IntegerOf(answer, L"tt:Month", kMissing) - 1;
  fields.tm_mday = IntegerOf(answer, L"tt:Day", kMissing);
  const bool valid = fields.tm_hour >= 0 && fields.tm_hour <= 23 && fields.tm_min >= 0 &&
                     fields.tm_min <= 59 && fields.tm_sec >= 0 && fields.tm_sec <= 60 &&
                     fields.tm_year >= 0 && fields.tm_year <= 8099 && fields.tm_mon >= 0 &&
                     fields.tm_mon <= 11 && fields.tm_mday >= 1 && fields.tm_mday <= 31;
  if (!valid) {
    return std::nullopt;
  }
  // UTC here and in UtcText, so that the camera's UTC fields come back in every time zone, and in
  // the hour that daylight saving leaves out.
  return timegm(&fields);
}

std::wstring ParseServicePath(std::wstring_view answer, std::wstring_view service) {
  const std::wstring url = TextOf(ElementContent(answer, service), L"tt:XAddr");
  const std::size_t host = url.find(L"//");
  const std::size_t path = host == std::wstring::npos ? host : url.find(L'/', host + 2);
  return path == std::wstring::npos ? std::wstring() : url.substr(path);
}

std::string FaultReason(std::wstring_view answer) {
  constexpr std::size_t kMaxCharacters = 200;
  if (!Holds(answer, L"<SOAP-ENV:Fault")) {
    return {};
  }
  const std::wstring_view fault = ElementContent(answer, L"SOAP-ENV:Fault");
  std::wstring reason = TextOf(fault, L"SOAP-ENV:Text");
  if (reason.empty()) {
    reason = TextOf(fault, L"faultstring");  // SOAP 1.1, section 4.4
  }
  if (reason.empty()) {
    reason = TextOf(fault, L"SOAP-ENV:Value");
  }
  reason.resize(std::min(reason.size(), kMaxCharacters));
  return reason.empty() ? "a fault without a reason" : Utf8FromWide(Plain(std::move(reason)));
}

bool IsNotAuthorizedFault(std::wstring_view answer) {
  return Holds(ElementContent(answer, L"SOAP-ENV:Fault"), L"NotAuthorized");
}

bool ParseDeviceInformation(std::wstring_view answer, stONVIFDeviceInformation& device) {
  if (!Holds(answer, L"<tds:Model")) {
    return false;
  }
  device = {.manufacturer = TextOf(answer, L"tds:Manufacturer"),
            .model = TextOf(answer, L"tds:Model"),
            .firmwareVersion = TextOf(answer, L"tds:FirmwareVersion"),
            .serialNumber = TextOf(answer, L"tds:SerialNumber"),
            .hardwareId = TextOf(answer, L"tds:HardwareId")};
  return true;
}

bool ParseImagingOptions(std::wstring_view answer, stImagingOptions& options) {
  if (!Holds(answer, L"<timg:ImagingOptions")) {
    return false;
  }
  const std::wstring_view whiteBalance = ElementContent(answer, L"tt:WhiteBalance");
  options = {.brightness = RangeOf(answer, L"tt:Brightness"),
             .colorSaturation = RangeOf(answer, L"tt:ColorSaturation"),
             .contrast = RangeOf(answer, L"tt:Contrast"),
             .sharpness = RangeOf(answer, L"tt:Sharpness"),
             .irCutFilterModes = TextsOf(answer, L"tt:IrCutFilterModes"),
             .whiteBalanceModes = TextsOf(whiteBalance, L"tt:Mode"),
             .crGain = RangeOf(whiteBalance, L"tt:YrGain"),
             .cbGain = RangeOf(whiteBalance, L"tt:YbGain"),
             .backlightCompensationModes = Modes(answer, L"tt:BacklightCompensation"),
             .wideDynamicRangeModes = Modes(answer, L"tt:WideDynamicRange")};
  return true;
}

bool ParseImagingSettings(std::wstring_view answer, stImagingSettings& settings) {
  if (!Holds(answer, L"<timg:ImagingSettings")) {
    return false;
  }
  settings = {.brightness = NumberOf(answer, L"tt:Brightness"),
              .colorSaturation = NumberOf(answer, L"tt:ColorSaturation"),
              .contrast = NumberOf(answer, L"tt:Contrast"),
              .sharpness = NumberOf(answer, L"tt:Sharpness"),
              .irCutFilter = {},
              .whiteBalance = {},
              .backlightCompensation = Mode(answer, L"tt:BacklightCompensation"),
              .wideDynamicRange = Mode(answer, L"tt:WideDynamicRange")};
  if (std::wstring mode = TextOf(answer, L"tt:IrCutFilter"); !mode.empty()) {
    settings.irCutFilter = std::move(mode);
  }
  if (const std::wstring_view block = ElementContent(answer, L"tt:WhiteBalance"); !block.empty()) {
    settings.whiteBalance = stWhiteBalance{.mode = TextOf(block, L"tt:Mode"),
                                           .crGain = NumberOf(block, L"tt:CrGain").value_or(0),
                                           .cbGain = NumberOf(block, L"tt:CbGain").value_or(0)};
  }
  return true;
}

bool ParseNetworkInterfaces(std::wstring_view answer, std::vector<stNetworkInterface>& interfaces) {
  if (!Holds(answer, L"tds:GetNetworkInterfacesResponse")) {
    return false;
  }
  interfaces.clear();
  for (std::wstring_view one; TakeElement(answer, L"tds:NetworkInterfaces", one);) {
    stNetworkInterface interface;
    interface.token = Token(one);
    const std::wstring_view info = ElementContent(one, L"tt:Info");
    interface.name = TextOf(info, L"tt:Name");
    interface.hardwareAddress = TextOf(info, L"tt:HwAddress");
    interface.enabled = TruthOf(one, L"tt:Enabled");
    const std::wstring_view ipv4 = ElementContent(one, L"tt:IPv4");
    interface.dhcp = TruthOf(ipv4, L"tt:DHCP");
    std::wstring_view inUse = ElementContent(ipv4, interface.dhcp ? L"tt:FromDHCP" : L"tt:Manual");
    if (inUse.empty()) {
      inUse = ipv4;
    }
    interface.address = TextOf(inUse, L"tt:Address");
    interface.prefixLength = IntegerOf(inUse, L"tt:PrefixLength");
    interfaces.push_back(std::move(interface));
  }
  return true;
}

bool ParseGateway(std::wstring_view answer, std::wstring& gateway) {
  if (!Holds(answer, L"<tds:NetworkGateway")) {
    return false;
  }
  const std::wstring_view addresses = ElementContent(answer, L"tds:NetworkGateway");
  gateway = TextOf(addresses, L"tt:IPv4Address");
  if (gateway.empty()) {
    gateway = TextOf(addresses, L"tds:IPv4Address");  // some take the outer element's namespace
  }
  return true;
}

bool ParseNameServers(std::wstring_view answer, stNetworkConfiguration& network) {
  if (!Holds(answer, L"<tds:DNSInformation")) {
    return false;
  }
  network.dnsFromDhcp = TruthOf(answer, L"tt:FromDHCP");
  network.dns.clear();
  const std::wstring_view list = network.dnsFromDhcp ? L"tt:DNSFromDHCP" : L"tt:DNSManual";
  for (std::wstring_view one; TakeElement(answer, list, one);) {
    if (std::wstring address = TextOf(one, L"tt:IPv4Address"); !address.empty()) {
      network.dns.push_back(std::move(address));
    }
  }
  return true;
}

}  // namespace cms
