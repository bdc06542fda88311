// Reading SOAP answers by searching for tags. Every search is linear in its text and copies no more
// than the value it finds.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "cms/ipcam/onvif_types.h"

namespace cms {

inline constexpr std::wstring_view kXmlSpace = L" \t\r\n";

// An answer in the spelling that tag searches expect: the elements of ONVIF's namespaces with the
// prefixes of SignedEnvelope, and tr2, whatever the camera calls them, a token in front of all
// other attributes, double quotes, and no white space at the end of a tag. Anything else stays as
// it is, broken texts too.
std::wstring Normalized(std::wstring_view answer);

// See CIPCAM_Config_Utility::ONVIF_GetStrByElement; a view of `text`, nothing when there is none.
std::optional<std::wstring_view> BetweenTags(std::wstring_view text, std::wstring_view opening,
                                             std::wstring_view closing);

// The content of the first element of this name ("tt:Name"), with or without attributes; empty when
// there is none.
std::wstring_view ElementContent(std::wstring_view text, std::wstring_view name);

// Takes the next element of this name off `text`: an element is the text from its "<name" to the
// next "</name>", or an empty "<name/>", the attributes included. False when none is left.
bool TakeElement(std::wstring_view& text, std::wstring_view name, std::wstring_view& element);

// An attribute of an element as TakeElement gives it; empty when it has none of that name.
std::wstring AttributeOf(std::wstring_view element, std::wstring_view name);
std::wstring Token(std::wstring_view element);

// Values of first elements: without white space around and without escapes.
std::wstring TextOf(std::wstring_view text, std::wstring_view name);
std::vector<std::wstring> TextsOf(std::wstring_view text, std::wstring_view name);  // of all
std::optional<double> NumberOf(std::wstring_view text, std::wstring_view name);
int IntegerOf(std::wstring_view text, std::wstring_view name, int otherwise = 0);
bool TruthOf(std::wstring_view text, std::wstring_view name);
std::optional<stRange> RangeOf(std::wstring_view text, std::wstring_view name);

}  // namespace cms
