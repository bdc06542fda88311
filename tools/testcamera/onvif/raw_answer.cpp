#include "tools/testcamera/onvif/raw_answer.h"

#include <memory>

#include "tools/testcamera/gst_ptr.h"

namespace testcamera {
namespace {

// Lives until the client goes, or with the process.
struct RawAnswer {
  ObjectPtr<SoupServerMessage> message;
  ObjectPtr<GIOStream> stream;
  OnvifStyle style;
  std::string bytes;
  char unread[256] = {};
};

void Write(RawAnswer* answer);

void OnWritten(GObject* out, GAsyncResult* result, gpointer data) {
  std::unique_ptr<RawAnswer> answer(static_cast<RawAnswer*>(data));
  const bool written =
      g_output_stream_write_all_finish(G_OUTPUT_STREAM(out), result, nullptr, nullptr) != FALSE;
  if (written && answer->style.endless) {
    answer->bytes.assign(64 * 1024, ' ');
    Write(answer.release());
  } else {
    g_io_stream_close(answer->stream.get(), nullptr, nullptr);
  }
}

void Write(RawAnswer* answer) {
  g_output_stream_write_all_async(g_io_stream_get_output_stream(answer->stream.get()),
                                  answer->bytes.data(), answer->bytes.size(), G_PRIORITY_DEFAULT,
                                  nullptr, OnWritten, answer);
}

// A silent camera only looks whether the client is still there.
void OnRead(GObject* in, GAsyncResult* result, gpointer data) {
  std::unique_ptr<RawAnswer> answer(static_cast<RawAnswer*>(data));
  if (g_input_stream_read_finish(G_INPUT_STREAM(in), result, nullptr) > 0) {
    g_input_stream_read_async(G_INPUT_STREAM(in), answer->unread, sizeof answer->unread,
                              G_PRIORITY_DEFAULT, nullptr, OnRead, answer.get());
    static_cast<void>(answer.release());
  }
}

gboolean Start(gpointer data) {
  auto* answer = static_cast<RawAnswer*>(data);
  answer->stream.reset(soup_server_message_steal_connection(answer->message.get()));
  if (answer->style.silent) {
    g_input_stream_read_async(g_io_stream_get_input_stream(answer->stream.get()), answer->unread,
                              sizeof answer->unread, G_PRIORITY_DEFAULT, nullptr, OnRead, answer);
  } else {
    Write(answer);
  }
  return G_SOURCE_REMOVE;
}

}  // namespace

void SendRaw(SoupServerMessage* message, GMainContext* context, const OnvifStyle& style,
             const std::string& head, const std::string& body) {
  soup_server_message_pause(message);
  auto answer = std::make_unique<RawAnswer>();
  answer->message.reset(SOUP_SERVER_MESSAGE(g_object_ref(message)));
  answer->style = style;
  // The length of the whole body is announced, whatever follows.
  answer->bytes = head + body.substr(0, body.size() / 2);
  // Later, when the server is done with the message.
  GSource* idle = g_idle_source_new();
  g_source_set_callback(idle, Start, answer.release(), nullptr);
  g_source_attach(idle, context);
  g_source_unref(idle);
}

}  // namespace testcamera
