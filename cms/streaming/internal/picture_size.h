// The picture size that a frame announces, as a decoder would show it.
#pragma once

#include <optional>

#include "cms/streaming/stream_probes.h"

namespace cms {

// The size in a whole H.264 sequence parameter set of any profile, from the byte behind its NAL
// header (ITU-T H.264, 7.3.2.1.1): field coding and cropping are counted in. Nothing when the set
// breaks a limit or is cut short. CMSGetH264WidthAndHeight keeps a simpler rule.
std::optional<PictureSize> FullH264Size(Bytes sps);

// The size in the headers of a key frame, of what lies before its first picture data. `videoType`:
// a CMSVideoType. Nothing when the frame has no such header.
std::optional<PictureSize> AnnouncedSize(int videoType, Bytes frame);

}  // namespace cms
