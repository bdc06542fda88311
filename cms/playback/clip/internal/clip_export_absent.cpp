// In the place of clip_export.cpp where the library is built without ORVANTA_EXPORT.
#include <stdexcept>

#include "cms/playback/clip/internal/clip_export.h"

namespace cms {

ExportResult ExportClip(const ExportOptions& options, const ExportProgress& /*progress*/) {
  throw std::runtime_error(options.path + ": this library was built without ORVANTA_EXPORT");
}

}  // namespace cms
