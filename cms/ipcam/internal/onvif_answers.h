// What ONVIF answers hold. All texts are answers that went through Normalized. A function returns
// false, with its result untouched, when the answer lacks what it is about.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/onvif_types.h"

namespace cms {

// The camera's clock in seconds since 1970-01-01 UTC.
std::optional<std::int64_t> ParseSystemDateAndTime(std::wstring_view answer);

// The path of the service that capabilities name by that element, such as L"tt:Media"; empty
// without one. Only the path counts: addresses that a camera behind a router tells of itself lead
// nowhere.
std::wstring ParseServicePath(std::wstring_view answer, std::wstring_view service);

// The reason that a SOAP fault gives as short UTF-8; empty when the answer is no fault.
std::string FaultReason(std::wstring_view answer);
bool IsNotAuthorizedFault(std::wstring_view answer);

bool ParseDeviceInformation(std::wstring_view answer, stONVIFDeviceInformation& device);
bool ParseImagingOptions(std::wstring_view answer, stImagingOptions& options);
bool ParseImagingSettings(std::wstring_view answer, stImagingSettings& settings);
bool ParseNetworkInterfaces(std::wstring_view answer, std::vector<stNetworkInterface>& interfaces);
bool ParseGateway(std::wstring_view answer, std::wstring& gateway);
bool ParseNameServers(std::wstring_view answer, stNetworkConfiguration& network);

}  // namespace cms
