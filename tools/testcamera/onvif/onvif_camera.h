// The camera's configuration side: ONVIF and the parameter CGI over HTTP, in front of its RTSP
// streams.
#pragma once

#include <libsoup/soup.h>

#include <optional>
#include <string>
#include <vector>

#include "tools/testcamera/gst_ptr.h"
#include "tools/testcamera/login.h"
#include "tools/testcamera/onvif/event_service.h"
#include "tools/testcamera/onvif/operations.h"
#include "tools/testcamera/onvif/ptz_service.h"
#include "tools/testcamera/onvif/username_token.h"
#include "tools/testcamera/rtsp_camera.h"

namespace testcamera {

// Everything happens on the thread that runs the context, which is to be running no more when the
// camera is destroyed.
class OnvifCamera {
 public:
  // Without a certificate it is plain HTTP. The streams follow what clients set. The number tells
  // this camera from others of the process. Throws std::runtime_error, for instance when the port
  // is taken.
  OnvifCamera(const CameraOptions& camera, const OnvifOptions& onvif, RtspCamera& streams,
              GTlsCertificate* certificate, GMainContext* context, int number);
  ~OnvifCamera();
  OnvifCamera(const OnvifCamera&) = delete;
  OnvifCamera& operator=(const OnvifCamera&) = delete;

  std::string Url() const { return ServiceUrl(HostForUrl(state_.camera)) + "device_service"; }

  // For discovery.
  const OnvifStyle& Style() const { return state_.onvif.style; }
  const std::string& Endpoint() const { return endpoint_; }  // "urn:uuid:..."
  std::vector<std::string> DeviceScopes() { return Scopes(state_); }
  // The device service's addresses for a client that reaches the camera at this address.
  std::string Addresses(const std::string& host) const;

 private:
  static void OnSoap(SoupServer* server, SoupServerMessage* message, const char* path,
                     GHashTable* query, gpointer camera);
  static void OnCgi(SoupServer* server, SoupServerMessage* message, const char* path,
                    GHashTable* query, gpointer camera);
  static void OnControl(SoupServer* server, SoupServerMessage* message, const char* path,
                        GHashTable* query, gpointer camera);
  std::string ServiceUrl(const std::string& host) const;
  // Nothing when the answer comes later.
  std::optional<unsigned> AnswerSoap(SoupServerMessage* message, const std::string& path,
                                     std::string* answer, bool* clock);
  static void RefuseLogin(SoupServerMessage* message, const Login& login);
  void AnswerSnapshot(SoupServerMessage* message);
  void SendLate(SoupServerMessage* message, const std::string& answer);
  void AnswerCgi(SoupServerMessage* message, const std::string& path);
  // Answers, or does what the style does instead.
  void Send(SoupServerMessage* message, unsigned status, const char* type, const std::string& body,
            bool misbehave);
  void FollowSettings();

  CameraState state_;
  RtspCamera& streams_;
  GMainContext* const context_;
  std::vector<CameraOptions> served_;  // what the RTSP server sends now
  UsernameTokenCheck tokenCheck_;
  const Login login_;      // of the parameter CGI
  const Login soapLogin_;  // beside the token of SOAP requests
  const Login snapshotLogin_;
  const bool tls_;
  EventService events_;
  PtzService ptz_;
  Operations operations_;
  std::string endpoint_;
  std::uint16_t port_ = 0;
  const ObjectPtr<SoupServer> server_;
};

}  // namespace testcamera
