// The logins of today for the RTSP server, whose own authentication knows Digest without qop and
// with MD5 only.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/gst_ptr.h"

namespace testcamera {

// Lets in who logs in as the options say, with that token.
ObjectPtr<GstRTSPAuth> MakeRtspLogin(const CameraOptions& options, GstRTSPToken* token);

}  // namespace testcamera
