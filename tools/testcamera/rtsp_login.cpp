#include "tools/testcamera/rtsp_login.h"

#include <memory>
#include <string>

#include "tools/testcamera/login.h"

namespace testcamera {
namespace {

struct RtspLogin {
  Login login;
  MiniPtr<GstRTSPToken> token;
};

struct LoginObject {
  GstRTSPAuth parent;
  RtspLogin* login;
};

struct LoginClass {
  GstRTSPAuthClass parent;
};

const RtspLogin& LoginOf(GstRTSPAuth* auth) {
  return *reinterpret_cast<LoginObject*>(auth)->login;
}

// Without a token the server refuses the request, with the headers below.
gboolean Authenticate(GstRTSPAuth* auth, GstRTSPContext* context) {
  const RtspLogin& login = LoginOf(auth);
  gchar* authorization = nullptr;
  GstRTSPMethod method = GST_RTSP_INVALID;
  const gchar* target = nullptr;
  GstRTSPVersion version = GST_RTSP_VERSION_INVALID;
  gst_rtsp_message_get_header(context->request, GST_RTSP_HDR_AUTHORIZATION, &authorization, 0);
  gst_rtsp_message_parse_request(context->request, &method, &target, &version);
  if (authorization != nullptr && target != nullptr &&
      login.login.Accepts(authorization, gst_rtsp_method_as_text(method), target)) {
    context->token = login.token.get();
  }
  return TRUE;
}

void AddChallenges(GstRTSPAuth* auth, GstRTSPContext* context) {
  for (const std::string& each : LoginOf(auth).login.Challenges()) {
    gst_rtsp_message_add_header(context->response, GST_RTSP_HDR_WWW_AUTHENTICATE, each.c_str());
  }
}

void Finalize(GObject* object) {
  delete reinterpret_cast<LoginObject*>(object)->login;
  G_OBJECT_CLASS(g_type_class_peek(GST_TYPE_RTSP_AUTH))->finalize(object);
}

GType LoginType() {
  static const GType type = [] {
    const GTypeInfo info{.class_size = sizeof(LoginClass),
                         .base_init = nullptr,
                         .base_finalize = nullptr,
                         .class_init =
                             [](gpointer klass, gpointer) {
                               GST_RTSP_AUTH_CLASS(klass)->authenticate = Authenticate;
                               GST_RTSP_AUTH_CLASS(klass)->generate_authenticate_header =
                                   AddChallenges;
                               G_OBJECT_CLASS(klass)->finalize = Finalize;
                             },
                         .class_finalize = nullptr,
                         .class_data = nullptr,
                         .instance_size = sizeof(LoginObject),
                         .n_preallocs = 0,
                         .instance_init = nullptr,
                         .value_table = nullptr};
    return g_type_register_static(GST_TYPE_RTSP_AUTH, "OrvantaRtspLogin", &info,
                                  static_cast<GTypeFlags>(0));
  }();
  return type;
}

}  // namespace

ObjectPtr<GstRTSPAuth> MakeRtspLogin(const CameraOptions& options, GstRTSPToken* token) {
  auto* auth = static_cast<GstRTSPAuth*>(g_object_new(LoginType(), nullptr));
  reinterpret_cast<LoginObject*>(auth)->login =
      new RtspLogin{Login(options), MiniPtr<GstRTSPToken>(gst_rtsp_token_ref(token))};
  return ObjectPtr<GstRTSPAuth>(auth);
}

}  // namespace testcamera
