#include "tools/testcamera/onvif/onvif_camera.h"

#include <stdexcept>
#include <utility>

#include "tools/testcamera/onvif/param_cgi.h"
#include "tools/testcamera/onvif/raw_answer.h"
#include "tools/testcamera/picture_source.h"

namespace testcamera {
namespace {

constexpr char kSoapType[] = "application/soap+xml; charset=utf-8";

CameraOptions WithAuth(CameraOptions options, AuthScheme scheme) {
  options.auth = scheme;
  return options;
}

std::string AuthorizationOf(SoupServerMessage* message) {
  const char* authorization = soup_message_headers_get_one(
      soup_server_message_get_request_headers(message), "Authorization");
  return authorization == nullptr ? "" : authorization;
}

// The same for a camera at the same address and port, also after it was switched off and on.
std::string MakeEndpoint(const std::string& place) {
  const TextPtr digest(g_compute_checksum_for_string(G_CHECKSUM_MD5, place.c_str(), -1));
  const std::string hex(digest.get());
  return "urn:uuid:" + hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-3" + hex.substr(13, 3) + "-8" +
         hex.substr(17, 3) + "-" + hex.substr(20, 12);
}

// The address that the client reached, as URLs have it.
std::string LocalHost(SoupServerMessage* message) {
  GSocketAddress* address = soup_server_message_get_local_address(message);
  const std::string host = TextPtr(g_inet_address_to_string(g_inet_socket_address_get_address(
                                       G_INET_SOCKET_ADDRESS(address))))
                               .get();
  return host.find(':') == std::string::npos ? host : "[" + host + "]";
}

std::string RequestBody(SoupServerMessage* message) {
  GBytes* bytes = soup_message_body_flatten(soup_server_message_get_request_body(message));
  gsize size = 0;
  const auto* data = static_cast<const char*>(g_bytes_get_data(bytes, &size));
  std::string body = size == 0 ? std::string() : std::string(data, size);
  g_bytes_unref(bytes);
  return body;
}

}  // namespace

OnvifCamera::OnvifCamera(const CameraOptions& camera, const OnvifOptions& onvif,
                         RtspCamera& streams, GTlsCertificate* certificate, GMainContext* context,
                         int number)
    : state_(camera, onvif),
      streams_(streams),
      context_(context),
      tokenCheck_(camera.user, camera.password, onvif.window),
      login_(WithAuth(camera, AuthScheme::kBasic)),
      soapLogin_(WithAuth(camera, onvif.login)),
      snapshotLogin_(WithAuth(
          camera, onvif.login == AuthScheme::kNone ? AuthScheme::kDigestQop : onvif.login)),
      tls_(certificate != nullptr),
      events_(state_, context,
              [this](SoupServerMessage* message, const std::string& answer) {
                SendLate(message, answer);
              }),
      ptz_(state_, context,
           [this](const PictureDirection& direction) { streams_.Look(direction); }),
      server_(soup_server_new("server-header", "Orvanta-test-camera", nullptr)) {
  AddDeviceOperations(&operations_);
  AddNetworkOperations(&operations_);
  AddMediaOperations(&operations_);
  if (onvif.media2) {
    AddMedia2Operations(&operations_);
  }
  AddEncoderOperations(&operations_);
  AddImagingOperations(&operations_);
  events_.AddOperations(&operations_);
  if (camera.ptz) {
    ptz_.AddOperations(&operations_);
  }
  soup_server_add_handler(server_.get(), "/onvif", OnSoap, this, nullptr);
  soup_server_add_handler(server_.get(), "/cgi-bin", OnCgi, this, nullptr);
  soup_server_add_handler(server_.get(), "/control", OnControl, this, nullptr);

  const ObjectPtr<GSocketAddress> wanted(
      g_inet_socket_address_new_from_string(camera.bind.c_str(), onvif.port));
  GError* error = nullptr;
  // The server accepts in the context that is the thread's default while it is set up.
  g_main_context_push_thread_default(context);
  if (tls_) {
    soup_server_set_tls_certificate(server_.get(), certificate);
  }
  soup_server_listen(server_.get(), wanted.get(),
                     tls_ ? SOUP_SERVER_LISTEN_HTTPS : static_cast<SoupServerListenOptions>(0),
                     &error);
  g_main_context_pop_thread_default(context);
  if (error != nullptr) {
    const ErrorPtr owned(error);
    throw std::runtime_error("cannot listen for ONVIF on " + camera.bind + " port " +
                             std::to_string(onvif.port) + ": " + owned->message);
  }
  GSList* listeners = soup_server_get_uris(server_.get());
  port_ = static_cast<std::uint16_t>(g_uri_get_port(static_cast<GUri*>(listeners->data)));
  g_slist_free_full(listeners, reinterpret_cast<GDestroyNotify>(g_uri_unref));
  endpoint_ = MakeEndpoint(camera.bind + ":" + std::to_string(port_));
  state_.serial = "ORVTC" + std::to_string(1000 + number);
  FollowSettings();
}

OnvifCamera::~OnvifCamera() {
  soup_server_disconnect(server_.get());
}

std::string OnvifCamera::ServiceUrl(const std::string& host) const {
  return (tls_ ? "https://" : "http://") + host + ":" + std::to_string(port_) + "/onvif/";
}

std::string OnvifCamera::Addresses(const std::string& host) const {
  const std::string own = ServiceUrl(host) + "device_service";
  return Style().addresses ? "http://169.254.77.7/onvif/device_service "
                             "http://169.254.78.8:8080/onvif/device_service " +
                                 own + " http://[fe80::1]/onvif/device_service"
                           : own;
}

void OnvifCamera::OnSoap(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                         gpointer self) {
  auto* camera = static_cast<OnvifCamera*>(self);
  if (std::string_view(path) == "/onvif/snapshot") {
    camera->AnswerSnapshot(message);
    return;
  }
  if (soup_server_message_get_method(message) != SOUP_METHOD_POST) {
    soup_server_message_set_status(message, SOUP_STATUS_METHOD_NOT_ALLOWED, nullptr);
    return;
  }
  std::string answer;
  bool clock = false;
  const std::optional<unsigned> status = camera->AnswerSoap(message, path, &answer, &clock);
  if (status) {
    camera->Send(message, *status, kSoapType, answer, !clock);
  } else {
    soup_server_message_pause(message);
    camera->events_.Hold(message, path);
  }
}

// The HTTP status for the answer. SOAP 1.2 Adjuncts, section 7.5.2.2: 400 for a sender's fault, 500
// for a receiver's. A refused token is 401 in most firmwares, and 400 in those that print nicely.
std::optional<unsigned> OnvifCamera::AnswerSoap(SoupServerMessage* message, const std::string& path,
                                                std::string* answer, bool* clock) {
  SoapAnswer soap(Style());
  unsigned status = SOUP_STATUS_OK;
  try {
    const SoapRequest request(RequestBody(message));
    const std::string name = request.Name();
    const auto found = operations_.find({request.Space(), name});
    *clock = name == "GetSystemDateAndTime";
    if (found == operations_.end()) {
      throw SoapFault{"ter:ActionNotSupported", "", "The camera knows no " + name, true};
    }
    if (!found->second.open && !soapLogin_.Accepts(AuthorizationOf(message), "POST", path)) {
      RefuseLogin(message, soapLogin_);
      return SOUP_STATUS_UNAUTHORIZED;
    }
    if (!found->second.open) {
      tokenCheck_.Check(request.Header(), state_.clock.Now());
    }
    if (Style().unauthorized && !*clock) {
      throw SoapFault{"ter:NotAuthorized", "", "Sender not authorized"};
    }
    if (Style().fault && !*clock) {
      throw SoapFault{"ter:Action", "ter:Busy", "The camera is busy", true};
    }
    const std::string host = LocalHost(message);
    const std::string space = request.Space();
    const std::string prefix = space == kMediaSpace          ? "trt:"
                               : space == kImagingSpace      ? "timg:"
                               : space == kEventsSpace       ? "tev:"
                               : space == kNotificationSpace ? "wsnt:"
                               : space == kPtzSpace          ? "tptz:"
                               : space == kMedia2Space       ? "tr2:"
                                                             : "tds:";
    Call call{state_, request.Operation(), soap.Body().Add((prefix + name + "Response").c_str()),
              host,   ServiceUrl(host),    streams_.ServerUrl(host),
              path};
    found->second.run(call);
    tokenCheck_.SetPassword(state_.password);
    if (call.later) {
      return std::nullopt;
    }
    FollowSettings();
  } catch (const SoapFault& fault) {
    soap.SetFault(fault);
    status = fault.receiver ? SOUP_STATUS_INTERNAL_SERVER_ERROR
             : fault.subcode == "ter:NotAuthorized" && !Style().pretty ? SOUP_STATUS_UNAUTHORIZED
                                                                       : SOUP_STATUS_BAD_REQUEST;
  }
  *answer = soap.Bytes();
  return status;
}

void OnvifCamera::RefuseLogin(SoupServerMessage* message, const Login& login) {
  for (const std::string& challenge : login.Challenges()) {
    soup_message_headers_append(soup_server_message_get_response_headers(message),
                                "WWW-Authenticate", challenge.c_str());
  }
}

void OnvifCamera::AnswerSnapshot(SoupServerMessage* message) {
  if (!snapshotLogin_.Accepts(AuthorizationOf(message), "GET", "/onvif/snapshot")) {
    RefuseLogin(message, snapshotLogin_);
    soup_server_message_set_status(message, SOUP_STATUS_UNAUTHORIZED, nullptr);
    return;
  }
  PictureSource source(state_.camera);
  PictureSource::Watch watch(source);
  const auto picture = watch.Next();
  soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
  soup_server_message_set_response(message, "image/jpeg", SOUP_MEMORY_COPY, picture->data(),
                                   picture->size());
}

// An empty answer is a connection that breaks off.
void OnvifCamera::SendLate(SoupServerMessage* message, const std::string& answer) {
  if (!answer.empty()) {
    Send(message, SOUP_STATUS_OK, kSoapType, answer, true);
    soup_server_message_unpause(message);
    return;
  }
  const ObjectPtr<GIOStream> connection(soup_server_message_steal_connection(message));
  g_io_stream_close(connection.get(), nullptr, nullptr);
}

void OnvifCamera::OnControl(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                            gpointer self) {
  const std::string what = std::string(path).substr(std::string("/control").size());
  const char* query = g_uri_get_query(soup_server_message_get_uri(message));
  auto* camera = static_cast<OnvifCamera*>(self);
  const auto answer = what == "/ptz"
                          ? std::optional(camera->ptz_.State())
                          : camera->events_.Control(what.substr(what.starts_with('/') ? 1 : 0),
                                                    query == nullptr ? "" : query);
  soup_server_message_set_status(message, answer ? SOUP_STATUS_OK : SOUP_STATUS_NOT_FOUND, nullptr);
  soup_server_message_set_response(message, "application/json", SOUP_MEMORY_COPY,
                                   answer.value_or("").data(), answer.value_or("").size());
}

void OnvifCamera::OnCgi(SoupServer*, SoupServerMessage* message, const char* path, GHashTable*,
                        gpointer self) {
  static_cast<OnvifCamera*>(self)->AnswerCgi(message, path);
}

void OnvifCamera::AnswerCgi(SoupServerMessage* message, const std::string& path) {
  const char* query = g_uri_get_query(soup_server_message_get_uri(message));
  const std::string items = query == nullptr ? "" : query;
  constexpr char kText[] = "text/plain";
  if (Style().unauthorized || !login_.Accepts(AuthorizationOf(message), "GET", path)) {
    RefuseLogin(message, login_);
    Send(message, SOUP_STATUS_UNAUTHORIZED, kText, "Unauthorized\n", true);
  } else if (Style().fault) {
    Send(message, SOUP_STATUS_OK, kText, kInvalidValue, true);
  } else if (path == "/cgi-bin/admin/param.cgi") {
    Send(message, SOUP_STATUS_OK, kText, AnswerParamCgi(state_, items), true);
    FollowSettings();
  } else if (path == "/cgi-bin/tvsystem.cgi") {
    Send(message, SOUP_STATUS_OK, kText, AnswerTvSystemCgi(state_, items), true);
    FollowSettings();
  } else {
    Send(message, SOUP_STATUS_NOT_FOUND, kText, "Not found\n", false);
  }
}

void OnvifCamera::Send(SoupServerMessage* message, unsigned status, const char* type,
                       const std::string& body, bool misbehave) {
  if (misbehave && (Style().truncated || Style().endless || Style().silent)) {
    SendRaw(message, context_, Style(),
            "HTTP/1.1 " + std::to_string(status) + " " + soup_status_get_phrase(status) +
                "\r\nContent-Type: " + type +
                (Style().endless ? "" : "\r\nContent-Length: " + std::to_string(body.size())) +
                "\r\nConnection: close\r\n\r\n",
            body);
    return;
  }
  soup_server_message_set_status(message, status, nullptr);
  soup_server_message_set_response(message, type, SOUP_MEMORY_COPY, body.data(), body.size());
}

// Streams whose encoder was changed start anew.
void OnvifCamera::FollowSettings() {
  const std::vector<Encoder>& encoders = state_.settings.encoders;
  served_.resize(encoders.size());
  for (std::size_t i = 0; i < encoders.size(); ++i) {
    CameraOptions wanted = StreamOptions(state_.camera, encoders[i], static_cast<int>(i) + 1);
    if (!encoders[i].enabled) {
      streams_.RemoveStream(wanted.path);
      served_[i] = {};
    } else if (served_[i] != wanted) {
      streams_.SetStream(wanted);
      served_[i] = std::move(wanted);
    }
  }
}

}  // namespace testcamera
