// What is asked of a PTZ service (ONVIF PTZ Service Specification), and what comes back. Answers
// are in the spelling of Normalized; functions that read them return false, with the result
// untouched, when the answer is not about that.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/onvif_ptz.h"

namespace cms {

// A profile that can be moved: the one with the token, or the first when that is empty.
bool ParsePtzProfile(std::wstring_view answer, std::string_view token, PtzFeatures& features);
bool ParsePtzNode(std::wstring_view answer, PtzFeatures& features);
bool ParsePresets(std::wstring_view answer, std::vector<PtzPreset>& presets);
bool ParsePresetToken(std::wstring_view answer, std::string& token);
bool ParsePtzStatus(std::wstring_view answer, PtzStatus& status);

// A speed in parts of the highest in the numbers of the range.
double InRange(const stRange& range, double part);

// "<tptz:NAME><tptz:ProfileToken>...</tptz:NAME>" around further elements.
std::wstring PtzBody(std::wstring_view operation, std::string_view profileToken,
                     std::wstring_view elements = {});
// "<tptz:NAME>" with what of the vector has a value.
std::wstring VectorElement(std::wstring_view name, const PtzVector& vector, const PtzRange& panTilt,
                           const PtzRange& zoom);

}  // namespace cms
