// The camera's HTTP side: its pictures as an endless multipart/x-mixed-replace answer.
#pragma once

#include <gio/gio.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>

#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/login.h"
#include "tools/testcamera/picture_source.h"

namespace testcamera {

// Serves GET /video.mjpg. Each client has a thread of its own, so
// a slow one keeps nobody waiting; one that takes no byte for 10 seconds is dropped.
class HttpCamera {
 public:
  // The context accepts the clients; no thread may be running it yet. Throws std::runtime_error,
  // for instance when the port is taken.
  HttpCamera(const CameraOptions& options, GMainContext* context);
  ~HttpCamera();
  HttpCamera(const HttpCamera&) = delete;
  HttpCamera& operator=(const HttpCamera&) = delete;

  std::string Url() const;

 private:
  static gboolean OnConnection(GThreadedSocketService* service, GSocketConnection* connection,
                               GObject* source, HttpCamera* camera);
  void Serve(GSocketConnection* connection);
  void SendPictures(GOutputStream* out);
  bool Write(GOutputStream* out, const std::string& bytes) const;

  const CameraOptions options_;
  const Login login_;
  PictureSource pictures_;
  ObjectPtr<GCancellable> stop_;
  ObjectPtr<GSocketService> service_;
  std::uint16_t port_ = 0;

  std::mutex mutex_;
  std::condition_variable idle_;
  int clients_ = 0;
};

}  // namespace testcamera
