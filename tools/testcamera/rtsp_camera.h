// One test camera: an RTSP server whose clients share each of its streams.
#pragma once

#include <gst/rtsp-server/rtsp-server.h>

#include <memory>
#include <string>

#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/picture_view.h"

namespace testcamera {

// Serves on the thread that runs the context, which is to be running no more when the camera is
// destroyed.
class RtspCamera {
 public:
  // The certificate is for the option `tls`. Throws std::runtime_error, for instance when the port
  // is taken.
  RtspCamera(const CameraOptions& options, GTlsCertificate* certificate, GMainContext* context);
  ~RtspCamera();
  RtspCamera(const RtspCamera&) = delete;
  RtspCamera& operator=(const RtspCamera&) = delete;

  std::string Url() const;
  // "rtsp://HOST:PORT", or "rtsps://HOST:PORT"
  std::string ServerUrl(const std::string& host) const;

  // Another stream, or another kind of stream at the path of one that there is: its clients are
  // sent away. On the context's thread. Throws std::runtime_error when it cannot be made.
  void SetStream(const CameraOptions& stream);
  void RemoveStream(const std::string& path);
  // Where the streams look, if they can be moved; on the context's thread.
  void Look(const PictureDirection& direction) { view_->Look(direction); }

 private:
  struct Stream {
    CameraOptions options;
    VideoCodec codec;
    std::shared_ptr<PictureView> view;
  };

  // Whether the server looks at who asks, which it also does in order to offer RTSPS.
  bool AsksForRole() const { return options_.tls || options_.auth != AuthScheme::kNone; }
  void AddLogin(GTlsCertificate* certificate);
  void AddGroup(GstRTSPMediaFactory* factory) const;
  static void OnMedia(GstRTSPMediaFactory* factory, GstRTSPMedia* media, const Stream* stream);
  static void OnClient(GstRTSPServer* server, GstRTSPClient* client, RtspCamera* camera);
  static void OnAnswer(GstRTSPClient* client, GstRTSPSession* session, GstRTSPMessage* answer,
                       RtspCamera* camera);
  static void OnSession(GstRTSPClient* client, GstRTSPSession* session, RtspCamera* camera);
  static gboolean OnTimer(gpointer camera);

  const CameraOptions options_;
  const std::shared_ptr<PictureView> view_ = std::make_shared<PictureView>();
  const ObjectPtr<GstRTSPServer> server_;
  const ObjectPtr<GstRTSPSessionPool> sessions_;
  GSource* listener_ = nullptr;
  GSource* timer_ = nullptr;
};

}  // namespace testcamera
