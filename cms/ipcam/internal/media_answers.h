// What both versions of the media service answer, as the same records. All texts are answers that
// went through Normalized. A function returns false, with its result untouched, when the answer
// lacks what it is about.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/onvif_types.h"

namespace cms {

bool ParseProfiles(std::wstring_view answer, std::vector<stVideoProfile>& profiles);
bool ParseMedia2Profiles(std::wstring_view answer, std::vector<stVideoProfile>& profiles);
bool ParseVideoEncoderConfigurations(std::wstring_view answer,
                                     std::vector<stVideoEncoderConfiguration>& configurations);
bool ParseVideoEncoderOptions(std::wstring_view answer, stVideoEncoderOptions& options);
bool ParseMedia2EncoderOptions(std::wstring_view answer, stVideoEncoderOptions& options);
bool ParseStreamUri(std::wstring_view answer, std::wstring& uri);  // of either version
bool ParseCreatedProfile(std::wstring_view answer, std::wstring& token);

}  // namespace cms
