// The units inside an H.264 picture.
#pragma once

#include <gst/gst.h>

#include "tools/testcamera/gst_ptr.h"

namespace testcamera {

// The picture (with 4-byte lengths in front of its units) without parameter sets, which the
// payloader sends, and with an access-unit delimiter in front or none at all.
MiniPtr<GstBuffer> ConformUnits(GstBuffer* picture, bool delimiters);

}  // namespace testcamera
