// The bodies of ONVIF requests that have more than a token in them. Texts are escaped here.
#pragma once

#include <string>
#include <string_view>

#include "cms/ipcam/onvif_types.h"

namespace cms {

// "<name>text</name>", the text escaped.
std::wstring Element(std::wstring_view name, std::wstring_view text);

std::wstring StreamUriBody(std::wstring_view profileToken);
std::wstring VideoEncoderOptionsBody(std::wstring_view configurationToken,
                                     std::wstring_view profileToken);
std::wstring H264EncoderBody(const stVideoEncoderConfiguration& configuration);
std::wstring JpegEncoderBody(const stVideoEncoderConfiguration& configuration);
std::wstring Profile1EncoderBody(std::wstring_view encoding, double quality);
std::wstring AudioEncoderBody(const stAudioEncoderConfiguration& configuration);
std::wstring AddConfigurationBody(std::wstring_view operation, std::wstring_view profileToken,
                                  std::wstring_view configurationToken);
std::wstring GetImagingBody(std::wstring_view operation, std::wstring_view videoSourceToken);
std::wstring ImagingItems(const stImagingSettings& settings);
std::wstring SetImagingBody(std::wstring_view videoSourceToken, const stImagingSettings& settings);
std::wstring NetworkInterfaceBody(const stNetworkSettings& settings);
std::wstring NameServerBody(std::wstring_view address);  // empty: from DHCP

// An operation of the second version of the media service, whose prefix no envelope declares.
std::wstring Media2Body(std::wstring_view operation, std::wstring_view elements);

}  // namespace cms
