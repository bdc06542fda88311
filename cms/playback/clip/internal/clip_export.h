// A clip of recordings: what they begin with, then frame after frame into the file.
//
// In this room failures are std::runtime_error with the line that the client application gets;
// cms/playback/clip/recording_export.cpp lets none of them out.
#pragma once

#include "cms/playback/clip/recording_export.h"

namespace cms {

ExportResult ExportClip(const ExportOptions& options, const ExportProgress& progress);

}  // namespace cms
