// gstreamer_payloader h264|h265 none|zero-latency: puts the pictures of standard input through
// GStreamer's payloader and writes the RTP packets to standard output. Each picture and each packet
// has its length in front, 32 bits. A program of its own keeps GStreamer out of the tests.
#include <gst/gst.h>

#include <cstdint>
#include <cstdio>
#include <string>

namespace {

constexpr GstClockTime kPictureTime = GST_SECOND / 25;

GstFlowReturn WritePacket(GstPad*, GstObject*, GstBuffer* buffer) {
  GstMapInfo map;
  gst_buffer_map(buffer, &map, GST_MAP_READ);
  const auto size = static_cast<std::uint32_t>(map.size);
  const bool written = std::fwrite(&size, sizeof size, 1, stdout) == 1 &&
                       std::fwrite(map.data, 1, map.size, stdout) == map.size;
  gst_buffer_unmap(buffer, &map);
  gst_buffer_unref(buffer);
  return written ? GST_FLOW_OK : GST_FLOW_ERROR;
}

GstFlowReturn WritePackets(GstPad* pad, GstObject* parent, GstBufferList* list) {
  for (guint i = 0; i < gst_buffer_list_length(list); ++i) {
    WritePacket(pad, parent, gst_buffer_ref(gst_buffer_list_get(list, i)));
  }
  gst_buffer_list_unref(list);
  return GST_FLOW_OK;
}

void SendCaps(GstPad* pad, const std::string& text) {
  GstCaps* const caps = gst_caps_from_string(text.c_str());
  gst_pad_send_event(pad, gst_event_new_caps(caps));
  gst_caps_unref(caps);
}

}  // namespace

int main(int argc, char** argv) {
  gst_init(&argc, &argv);
  if (argc != 3) {
    return 2;
  }
  const std::string codec = argv[1];
  GstElement* const payloader = gst_element_factory_make(("rtp" + codec + "pay").c_str(), nullptr);
  if (payloader == nullptr) {
    std::fprintf(stderr, "GStreamer has no payloader for %s\n", codec.c_str());
    return 1;
  }
  gst_util_set_object_arg(G_OBJECT(payloader), "aggregate-mode", argv[2]);
  GstPad* const sink = gst_element_get_static_pad(payloader, "sink");
  GstPad* const source = gst_element_get_static_pad(payloader, "src");
  GstPad* const output = gst_pad_new("output", GST_PAD_SINK);
  gst_pad_set_chain_function(output, WritePacket);
  gst_pad_set_chain_list_function(output, WritePackets);
  gst_pad_set_active(output, TRUE);
  gst_pad_link(source, output);
  gst_element_set_state(payloader, GST_STATE_PLAYING);
  gst_pad_send_event(sink, gst_event_new_stream_start("pictures"));
  SendCaps(sink, "video/x-" + codec + ",stream-format=byte-stream,alignment=au");
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_pad_send_event(sink, gst_event_new_segment(&segment));

  GstClockTime time = 0;
  GstFlowReturn flow = GST_FLOW_OK;
  for (std::uint32_t size = 0;
       flow == GST_FLOW_OK && std::fread(&size, sizeof size, 1, stdin) == 1;) {
    GstBuffer* const picture = gst_buffer_new_allocate(nullptr, size, nullptr);
    GstMapInfo map;
    gst_buffer_map(picture, &map, GST_MAP_WRITE);
    if (std::fread(map.data, 1, size, stdin) != size) {
      flow = GST_FLOW_ERROR;
    }
    gst_buffer_unmap(picture, &map);
    GST_BUFFER_PTS(picture) = GST_BUFFER_DTS(picture) = time;
    time += kPictureTime;
    if (flow == GST_FLOW_OK) {
      flow = gst_pad_chain(sink, picture);
    }
  }
  gst_pad_send_event(sink, gst_event_new_eos());
  gst_element_set_state(payloader, GST_STATE_NULL);
  return flow == GST_FLOW_OK && std::fflush(stdout) == 0 ? 0 : 1;
}
