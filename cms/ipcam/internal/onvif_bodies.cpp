#include "cms/ipcam/internal/onvif_bodies.h"

#include <cmath>
#include <optional>

#include "cms/ipcam/internal/soap_envelope.h"

namespace cms {
namespace {

std::wstring Enclosed(std::wstring_view name, std::wstring_view xml) {
  std::wstring element;
  element.reserve(xml.size() + 2 * name.size() + 5);
  element += L'<';
  element += name;
  element += L'>';
  element += xml;
  element += L"</";
  element += name;
  element += L'>';
  return element;
}

std::wstring Element(std::wstring_view name, int number) {
  return Enclosed(name, std::to_wstring(number));
}

std::wstring Rounded(std::wstring_view name, double number) {
  return Enclosed(name, std::to_wstring(std::lround(number)));
}

std::wstring Resolution(const stResolution& resolution) {
  return Enclosed(L"tt:Resolution", Element(L"tt:Width", resolution.width) +
                                        Element(L"tt:Height", resolution.height));
}

// <name token="..."> around what is inside, and ForcePersistence behind it.
std::wstring Configuration(std::wstring_view operation, std::wstring_view token,
                           std::wstring_view inside) {
  std::wstring body = L"<trt:Configuration token=\"" + XmlEscaped(token) + L"\">";
  body += inside;
  body += L"</trt:Configuration><trt:ForcePersistence>true</trt:ForcePersistence>";
  return Enclosed(operation, body);
}

constexpr std::wstring_view kSetVideoEncoder = L"trt:SetVideoEncoderConfiguration";

}  // namespace

std::wstring Element(std::wstring_view name, std::wstring_view text) {
  return Enclosed(name, XmlEscaped(text));
}

std::wstring StreamUriBody(std::wstring_view profileToken) {
  return L"<GetStreamUri xmlns=\"http://www.onvif.org/ver10/media/wsdl\"><StreamSetup>"
         L"<Stream xmlns=\"http://www.onvif.org/ver10/schema\">RTP-Unicast</Stream>"
         L"<Transport xmlns=\"http://www.onvif.org/ver10/schema\"><Protocol>UDP</Protocol>"
         L"</Transport></StreamSetup>" +
         Element(L"ProfileToken", profileToken) + L"</GetStreamUri>";
}

std::wstring VideoEncoderOptionsBody(std::wstring_view configurationToken,
                                     std::wstring_view profileToken) {
  const bool ofAny = configurationToken.empty() && profileToken.empty();
  return Enclosed(L"trt:GetVideoEncoderConfigurationOptions",
                  ofAny ? std::wstring()
                        : Element(L"ConfigurationToken", configurationToken) +
                              Element(L"ProfileToken", profileToken));
}

std::wstring H264EncoderBody(const stVideoEncoderConfiguration& configuration) {
  const stMulticastConfiguration& multicast = configuration.multicast;
  std::wstring inside = Element(L"tt:Name", configuration.name);
  inside += Element(L"tt:UseCount", configuration.useCount);
  inside += Element(L"tt:Encoding", L"H264");
  inside += Resolution(configuration.resolution);
  inside += Enclosed(L"tt:Quality", Decimal(configuration.quality, 2));
  inside += Enclosed(L"tt:RateControl",
                     Element(L"tt:FrameRateLimit", configuration.frameRateLimit) +
                         Element(L"tt:EncodingInterval", configuration.encodingInterval) +
                         Element(L"tt:BitrateLimit", configuration.bitrateLimit));
  inside += Enclosed(L"tt:H264", Element(L"tt:GovLength", configuration.govLength) +
                                     Element(L"tt:H264Profile", configuration.h264Profile));
  inside += Enclosed(L"tt:Multicast",
                     Enclosed(L"tt:Address", Element(L"tt:Type", L"IPv4") +
                                                 Element(L"tt:IPv4Address", multicast.address)) +
                         Element(L"tt:Port", multicast.port) + Element(L"tt:TTL", multicast.ttl) +
                         Element(L"tt:AutoStart", multicast.autoStart ? L"true" : L"false"));
  inside += Element(L"tt:SessionTimeout", configuration.sessionTimeout);
  return Configuration(kSetVideoEncoder, configuration.token, inside);
}

std::wstring JpegEncoderBody(const stVideoEncoderConfiguration& configuration) {
  return Configuration(kSetVideoEncoder, configuration.token,
                       Element(L"tt:Encoding", L"JPEG") + Resolution(configuration.resolution) +
                           Enclosed(L"tt:Quality", Decimal(configuration.quality, 6)));
}

std::wstring Profile1EncoderBody(std::wstring_view encoding, double quality) {
  return Configuration(kSetVideoEncoder, L"Profile1",
                       Element(L"tt:Name", L"VideoEncoder1") + Element(L"tt:UseCount", 0) +
                           Element(L"tt:Encoding", encoding) +
                           Enclosed(L"tt:Quality", Decimal(quality, 2)));
}

std::wstring AudioEncoderBody(const stAudioEncoderConfiguration& configuration) {
  return Configuration(L"trt:SetAudioEncoderConfiguration", configuration.token,
                       Element(L"tt:Encoding", configuration.encoding) +
                           Element(L"tt:Bitrate", configuration.bitrate) +
                           Element(L"tt:SampleRate", configuration.sampleRate));
}

std::wstring AddConfigurationBody(std::wstring_view operation, std::wstring_view profileToken,
                                  std::wstring_view configurationToken) {
  return Enclosed(
      L"trt:" + std::wstring(operation),
      Element(L"ProfileToken", profileToken) + Element(L"ConfigurationToken", configurationToken));
}

std::wstring GetImagingBody(std::wstring_view operation, std::wstring_view videoSourceToken) {
  return Enclosed(L"timg:" + std::wstring(operation),
                  Element(L"VideoSourceToken", videoSourceToken));
}

// In the order of the schema's ImagingSettings, which strict cameras insist on.
std::wstring ImagingItems(const stImagingSettings& settings) {
  std::wstring items;
  const auto number = [&items](std::wstring_view name, const std::optional<double>& value) {
    if (value) {
      items += Rounded(name, *value);
    }
  };
  const auto mode = [&items](std::wstring_view name, const std::optional<std::wstring>& value) {
    if (value) {
      items += Enclosed(name, Element(L"tt:Mode", *value));
    }
  };
  mode(L"tt:BacklightCompensation", settings.backlightCompensation);
  number(L"tt:Brightness", settings.brightness);
  number(L"tt:ColorSaturation", settings.colorSaturation);
  number(L"tt:Contrast", settings.contrast);
  if (settings.irCutFilter) {
    items += Element(L"tt:IrCutFilter", *settings.irCutFilter);
  }
  number(L"tt:Sharpness", settings.sharpness);
  mode(L"tt:WideDynamicRange", settings.wideDynamicRange);
  if (const auto& balance = settings.whiteBalance) {
    items += L"<tt:WhiteBalance xsi:type=\"tt:WhiteBalance\">" +
             Element(L"tt:Mode", balance->mode) + Rounded(L"tt:CrGain", balance->crGain) +
             Rounded(L"tt:CbGain", balance->cbGain) + L"</tt:WhiteBalance>";
  }
  return items;
}

std::wstring SetImagingBody(std::wstring_view videoSourceToken, const stImagingSettings& settings) {
  return L"<timg:SetImagingSettings>" + Element(L"VideoSourceToken", videoSourceToken) +
         L"<ImagingSettings xsi:type=\"tt:ImagingSettings\">" + ImagingItems(settings) +
         L"</ImagingSettings><ForcePersistence>true</ForcePersistence></timg:SetImagingSettings>";
}

std::wstring NetworkInterfaceBody(const stNetworkSettings& settings) {
  std::wstring ipv4 = Element(L"tt:Enabled", L"true");
  if (!settings.dhcp) {
    ipv4 += Enclosed(L"tt:Manual", Element(L"tt:Address", settings.address) +
                                       Element(L"tt:PrefixLength", settings.prefixLength));
  }
  ipv4 += Element(L"tt:DHCP", settings.dhcp ? L"true" : L"false");
  return Enclosed(L"tds:SetNetworkInterfaces",
                  Element(L"tds:InterfaceToken", settings.interfaceToken) +
                      Enclosed(L"tds:NetworkInterface",
                               Element(L"tt:Enabled", L"true") + Enclosed(L"tt:IPv4", ipv4)));
}

std::wstring NameServerBody(std::wstring_view address) {
  if (address.empty()) {
    return L"<tds:SetDNS><tds:FromDHCP>true</tds:FromDHCP></tds:SetDNS>";
  }
  return L"<tds:SetDNS><tds:DNSManual><tt:Type>IPv4</tt:Type>" +
         Element(L"tt:IPv4Address", address) + L"</tds:DNSManual></tds:SetDNS>";
}

std::wstring Media2Body(std::wstring_view operation, std::wstring_view elements) {
  const std::wstring name(operation);
  return L"<tr2:" + name + L" xmlns:tr2=\"http://www.onvif.org/ver20/media/wsdl\">" +
         std::wstring(elements) + L"</tr2:" + name + L">";
}

}  // namespace cms
