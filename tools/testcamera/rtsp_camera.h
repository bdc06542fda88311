// One test camera: an RTSP server whose clients share each of its streams.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <string>

#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/gst_ptr.h"

namespace testcamera {

// Serves on the thread that runs the context, which is to be running no more when the camera is
// destroyed.
class RtspCamera {
 public:
  // Throws std::runtime_error, for instance when the port is taken.
  RtspCamera(const CameraOptions& options, GMainContext* context);
  ~RtspCamera();
  RtspCamera(const RtspCamera&) = delete;
  RtspCamera& operator=(const RtspCamera&) = delete;

  std::string Url() const;
  // "rtsp://HOST:PORT"
  std::string ServerUrl(const std::string& host) const;

  // Another stream, or another kind of stream at the path of one that there is: its clients are
  // sent away. On the context's thread. Throws std::runtime_error when it cannot be made.
  void SetStream(const CameraOptions& stream);
  void RemoveStream(const std::string& path);

 private:
  struct Stream {
    CameraOptions options;
    VideoCodec codec;
  };

  void AddPasswords();
  static void OnMedia(GstRTSPMediaFactory* factory, GstRTSPMedia* media, const Stream* stream);
  static void OnClient(GstRTSPServer* server, GstRTSPClient* client, RtspCamera* camera);
  static void OnSession(GstRTSPClient* client, GstRTSPSession* session, RtspCamera* camera);
  static gboolean OnTimer(gpointer camera);

  const CameraOptions options_;
  const ObjectPtr<GstRTSPServer> server_;
  const ObjectPtr<GstRTSPSessionPool> sessions_;
  GSource* listener_ = nullptr;
  GSource* timer_ = nullptr;
};

}  // namespace testcamera
