// The units inside an H.264 or H.265 picture.
#pragma once

#include <gst/gst.h>

#include <cstddef>

#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/gst_ptr.h"

namespace testcamera {

// What stands around a picture's slices.
struct UnitRules {
  VideoCodec codec = VideoCodec::kH264;
  bool delimiters = false;    // an access-unit delimiter in front
  bool parameterSets = true;  // in front of key pictures
  bool messages = false;      // an SEI message in front of the slices
  std::size_t keyPictureSize =
      0;  // filler data behind the slices of key pictures, up to so many bytes
};

// The picture (with 4-byte lengths in front of its units) with the delimiter and the parameter sets
// that the rules want and no others. The sets are those of `codecData`, the decoder's configuration
// record (ISO/IEC 14496-15), nullptr when there is none.
MiniPtr<GstBuffer> ConformUnits(GstBuffer* picture, GstBuffer* codecData, const UnitRules& rules);

}  // namespace testcamera
