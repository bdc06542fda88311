#include "tools/testcamera/rtsp_camera.h"

#include <gst/rtsp-server/rtsp-onvif-media-factory.h>
#include <gst/rtsp-server/rtsp-onvif-server.h>
#include <sys/socket.h>

#include <stdexcept>

#include "tools/testcamera/file_feed.h"
#include "tools/testcamera/file_reader.h"
#include "tools/testcamera/pipeline_text.h"
#include "tools/testcamera/rtsp_login.h"
#include "tools/testcamera/stream_probes.h"

namespace testcamera {
namespace {

constexpr char kViewer[] = "viewer";
constexpr guint8 kGroupReach = 1;  // hops of a multicast group's packets

template <typename Use>
void WithElement(GstElement* bin, const char* name, Use use) {
  const ObjectPtr<GstElement> element(gst_bin_get_by_name_recurse_up(GST_BIN(bin), name));
  if (element != nullptr) {
    use(element.get());
  }
}

// The server makes the pipeline when the first client comes; what is missing is to be known before.
void CheckPipeline(const std::string& text) {
  GError* error = nullptr;
  GstElement* bin =
      gst_parse_launch_full(text.c_str(), nullptr, GST_PARSE_FLAG_FATAL_ERRORS, &error);
  if (error != nullptr) {
    const ErrorPtr owned(error);
    throw std::runtime_error(std::string("cannot make the stream: ") + owned->message);
  }
  gst_object_unref(gst_object_ref_sink(bin));
}

// Whether one of the client's sessions plays the stream at that path.
bool Watches(GstRTSPClient* client, const char* path) {
  GList* sessions = gst_rtsp_client_session_filter(client, nullptr, nullptr);
  bool watches = false;
  for (GList* each = sessions; each != nullptr; each = each->next) {
    gint matched = 0;
    watches = watches ||
              gst_rtsp_session_get_media(GST_RTSP_SESSION(each->data), path, &matched) != nullptr;
  }
  g_list_free_full(sessions, g_object_unref);
  return watches;
}

}  // namespace

RtspCamera::RtspCamera(const CameraOptions& options, GTlsCertificate* certificate,
                       GMainContext* context)
    : options_(options),
      server_(options.talk.empty() ? gst_rtsp_server_new() : gst_rtsp_onvif_server_new()),
      sessions_(gst_rtsp_session_pool_new()) {
  gst_rtsp_server_set_address(server_.get(), options_.bind.c_str());
  gst_rtsp_server_set_service(server_.get(), std::to_string(options_.port).c_str());
  gst_rtsp_server_set_session_pool(server_.get(), sessions_.get());
  gst_rtsp_session_pool_set_max_sessions(sessions_.get(), options_.maxSessions);
  SetStream(options_);
  if (AsksForRole()) {
    AddLogin(certificate);
  }
  g_signal_connect(server_.get(), "client-connected", G_CALLBACK(&RtspCamera::OnClient), this);

  GError* error = nullptr;
  listener_ = gst_rtsp_server_create_source(server_.get(), nullptr, &error);
  if (listener_ == nullptr) {
    const ErrorPtr owned(error);
    throw std::runtime_error("cannot listen on " + options_.bind + " port " +
                             std::to_string(options_.port) + ": " + owned->message);
  }
  g_source_attach(listener_, context);
  timer_ = g_timeout_source_new_seconds(1);
  g_source_set_callback(timer_, &RtspCamera::OnTimer, this, nullptr);
  g_source_attach(timer_, context);
}

RtspCamera::~RtspCamera() {
  for (GSource* source : {listener_, timer_}) {
    if (source != nullptr) {
      g_source_destroy(source);
      g_source_unref(source);
    }
  }
  g_signal_handlers_disconnect_by_data(server_.get(), this);
  g_list_free_full(
      gst_rtsp_server_client_filter(
          server_.get(),
          [](GstRTSPServer*, GstRTSPClient*, gpointer) { return GST_RTSP_FILTER_REMOVE; }, nullptr),
      g_object_unref);
}

std::string RtspCamera::Url() const {
  return ServerUrl(HostForUrl(options_)) + options_.path;
}

std::string RtspCamera::ServerUrl(const std::string& host) const {
  return (options_.tls ? "rtsps://" : "rtsp://") + host + ":" +
         std::to_string(gst_rtsp_server_get_bound_port(server_.get()));
}

void RtspCamera::SetStream(const CameraOptions& stream) {
  const VideoCodec codec = stream.file.empty() ? stream.codec : FileReader(stream.file).Codec();
  const std::string pipeline = RtspPipeline(stream, codec);
  CheckPipeline(pipeline);
  const bool talks = !options_.talk.empty();
  GstRTSPMediaFactory* factory =
      talks ? gst_rtsp_onvif_media_factory_new() : gst_rtsp_media_factory_new();
  if (talks) {
    const std::string talk = TalkPipeline(options_);
    CheckPipeline(talk);
    gst_rtsp_onvif_media_factory_set_backchannel_launch(GST_RTSP_ONVIF_MEDIA_FACTORY(factory),
                                                        talk.c_str());
    gst_rtsp_media_factory_set_media_gtype(factory, GST_TYPE_RTSP_ONVIF_MEDIA);
  }
  gst_rtsp_media_factory_set_launch(factory, pipeline.c_str());
  gst_rtsp_media_factory_set_shared(factory, talks ? FALSE : TRUE);
  gst_rtsp_media_factory_set_latency(factory, 0);
  gst_rtsp_media_factory_set_protocols(
      factory,
      static_cast<GstRTSPLowerTrans>((options_.udp ? GST_RTSP_LOWER_TRANS_UDP : 0) |
                                     (options_.tcp ? GST_RTSP_LOWER_TRANS_TCP : 0) |
                                     (options_.multicast ? GST_RTSP_LOWER_TRANS_UDP_MCAST : 0)));
  if (options_.multicast) {
    AddGroup(factory);
  }
  if (AsksForRole()) {
    gst_rtsp_media_factory_add_role(factory, kViewer, GST_RTSP_PERM_MEDIA_FACTORY_ACCESS,
                                    G_TYPE_BOOLEAN, TRUE, GST_RTSP_PERM_MEDIA_FACTORY_CONSTRUCT,
                                    G_TYPE_BOOLEAN, TRUE, nullptr);
  }
  // The signal comes on the thread that serves the clients, as long as the factory is in use.
  g_signal_connect_data(
      factory, "media-configure", G_CALLBACK(&RtspCamera::OnMedia),
      new Stream{stream, codec, view_},
      [](gpointer data, GClosure*) { delete static_cast<Stream*>(data); },
      static_cast<GConnectFlags>(0));
  RemoveStream(stream.path);
  const ObjectPtr<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server_.get()));
  gst_rtsp_mount_points_add_factory(mounts.get(), stream.path.c_str(), factory);
}

void RtspCamera::RemoveStream(const std::string& path) {
  const ObjectPtr<GstRTSPMountPoints> mounts(gst_rtsp_server_get_mount_points(server_.get()));
  gst_rtsp_mount_points_remove_factory(mounts.get(), path.c_str());
  g_list_free_full(gst_rtsp_server_client_filter(
                       server_.get(),
                       [](GstRTSPServer*, GstRTSPClient* client, gpointer wanted) {
                         return Watches(client, static_cast<const char*>(wanted))
                                    ? GST_RTSP_FILTER_REMOVE
                                    : GST_RTSP_FILTER_KEEP;
                       },
                       const_cast<char*>(path.c_str())),
                   g_object_unref);
}

// Ports for the RTP and RTCP of video and sound.
void RtspCamera::AddGroup(GstRTSPMediaFactory* factory) const {
  constexpr guint16 kPorts = 4;
  const ObjectPtr<GstRTSPAddressPool> pool(gst_rtsp_address_pool_new());
  const gchar* group = options_.multicastAddress.c_str();
  const guint16 port = options_.multicastPort;
  if (!gst_rtsp_address_pool_add_range(pool.get(), group, group, port,
                                       static_cast<guint16>(port + kPorts - 1), kGroupReach)) {
    throw std::runtime_error("cannot send to the group " + options_.multicastAddress);
  }
  gst_rtsp_media_factory_set_address_pool(factory, pool.get());
}

void RtspCamera::AddLogin(GTlsCertificate* certificate) {
  const MiniPtr<GstRTSPToken> token(
      gst_rtsp_token_new(GST_RTSP_TOKEN_MEDIA_FACTORY_ROLE, G_TYPE_STRING, kViewer, nullptr));
  const bool todays = options_.auth == AuthScheme::kDigestQop ||
                      options_.auth == AuthScheme::kDigestSha256 ||
                      options_.auth == AuthScheme::kAll;
  const ObjectPtr<GstRTSPAuth> auth =
      todays ? MakeRtspLogin(options_, token.get()) : ObjectPtr<GstRTSPAuth>(gst_rtsp_auth_new());
  gst_rtsp_auth_set_realm(auth.get(), kRealm);
  if (options_.auth == AuthScheme::kNone) {
    gst_rtsp_auth_set_default_token(auth.get(), token.get());
  } else if (options_.auth == AuthScheme::kBasic) {
    const TextPtr basic(gst_rtsp_auth_make_basic(options_.user.c_str(), options_.password.c_str()));
    gst_rtsp_auth_set_supported_methods(auth.get(), GST_RTSP_AUTH_BASIC);
    gst_rtsp_auth_add_basic(auth.get(), basic.get(), token.get());
  } else if (options_.auth == AuthScheme::kDigest) {
    gst_rtsp_auth_set_supported_methods(auth.get(), GST_RTSP_AUTH_DIGEST);
    gst_rtsp_auth_add_digest(auth.get(), options_.user.c_str(), options_.password.c_str(),
                             token.get());
  }
  if (options_.tls) {
    gst_rtsp_auth_set_tls_certificate(auth.get(), certificate);
  }
  gst_rtsp_server_set_auth(server_.get(), auth.get());
}

void RtspCamera::OnMedia(GstRTSPMediaFactory*, GstRTSPMedia* media, const Stream* stream) {
  const CameraOptions& options = stream->options;
  const ObjectPtr<GstElement> bin(gst_rtsp_media_get_element(media));
  WithElement(bin.get(), kStampName, [&](GstElement* stamp) {
    NumberPictures(stamp);
    WithElement(bin.get(), kUntimedName, [&](GstElement* encoder) { KeepTimes(stamp, encoder); });
  });
  WithElement(bin.get(), kViewName,
              [&](GstElement* crop) { stream->view->Add(crop, options.width, options.height); });
  WithElement(bin.get(), kFeedName, [&](GstElement* appsrc) {
    g_object_set_data_full(G_OBJECT(media), kFeedName, new FileFeed(options, appsrc),
                           [](gpointer feed) { delete static_cast<FileFeed*>(feed); });
  });
  WithElement(bin.get(), "pay0", [&](GstElement* payloader) {
    if (stream->codec == VideoCodec::kH264 || stream->codec == VideoCodec::kH265) {
      ConformPictures(payloader, {.codec = stream->codec,
                                  .delimiters = options.delimiters,
                                  .parameterSets = options.parameterSets != ParameterSets::kSdp,
                                  .messages = options.messages,
                                  .keyPictureSize = options.keyPictureSize});
    }
    if (options.parameterSets == ParameterSets::kInband) {
      HideParameterSets(payloader);
    }
  });
  for (const char* name : {"pay0", "pay1"}) {
    WithElement(bin.get(), name, [&](GstElement* payloader) {
      ForbidSeeking(payloader);
      if (options.dropPercent > 0) {
        DropPackets(payloader, options.dropPercent);
      }
    });
  }
}

// The server holds the ports of its groups for itself and sends to other machines only; clients of
// this one are to have the packets, too.
void RtspCamera::OnAnswer(GstRTSPClient*, GstRTSPSession*, GstRTSPMessage*, RtspCamera*) {
  const GstRTSPContext* context = gst_rtsp_context_get_current();
  if (context == nullptr || context->media == nullptr) {
    return;
  }
  for (guint i = 0; i < gst_rtsp_media_n_streams(context->media); ++i) {
    for (const auto socketOf :
         {gst_rtsp_stream_get_rtp_multicast_socket, gst_rtsp_stream_get_rtcp_multicast_socket}) {
      if (const ObjectPtr<GSocket> socket(
              socketOf(gst_rtsp_media_get_stream(context->media, i), G_SOCKET_FAMILY_IPV4));
          socket != nullptr) {
        g_socket_set_option(socket.get(), SOL_SOCKET, SO_REUSEADDR, 1, nullptr);
        g_socket_set_multicast_loopback(socket.get(), TRUE);
      }
    }
  }
}

void RtspCamera::OnClient(GstRTSPServer*, GstRTSPClient* client, RtspCamera* camera) {
  if (camera->options_.multicast) {
    g_signal_connect(client, "send-message", G_CALLBACK(&RtspCamera::OnAnswer), camera);
  }
  g_signal_connect(client, "new-session", G_CALLBACK(&RtspCamera::OnSession), camera);
}

void RtspCamera::OnSession(GstRTSPClient*, GstRTSPSession* session, RtspCamera* camera) {
  gst_rtsp_session_set_timeout(session, camera->options_.sessionTimeout);
}

// Forgets the sessions of clients that vanished.
gboolean RtspCamera::OnTimer(gpointer camera) {
  gst_rtsp_session_pool_cleanup(static_cast<RtspCamera*>(camera)->sessions_.get());
  return G_SOURCE_CONTINUE;
}

}  // namespace testcamera
