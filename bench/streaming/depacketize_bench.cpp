// Depacketizing a 1080p H.264 stream that came in 1,400-byte packets: our depacketizer beside a
// plain memcpy of the payloads, GStreamer's rtph264depay and FFmpeg's RTP demuxer on the same
// packets. Warm: the first frames again and again. Cold: far more packets than the caches hold, in
// shuffled places. One iteration is one packet.
extern "C" {
#include <libavformat/avformat.h>
}

#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <numeric>
#include <random>

#include "cms/streaming/h264_rtp_processer.h"
#include "cms/streaming/internal/access_unit_assembler.h"
#include "tests/support/encoded_clip.h"
#include "tests/support/rtp_packetizer.h"

namespace {

constexpr int kFrames = 300;
constexpr int kGop = 50;
constexpr std::size_t kWarmFrames = 5;
// A multiple of 65536, so that sequence numbers run on from one round to the next; 300 MB.
constexpr std::size_t kColdPackets = 3 * 65536;

struct PacketRef {
  std::uint8_t* data;
  int length;
};

// The packets of a stream in sending order, wherever they lie.
struct Stream {
  std::unique_ptr<std::uint8_t[]> memory;
  std::vector<PacketRef> packets;
};

const std::vector<test::RtpPackets>& Frames() {
  static const auto frames = [] {
    std::vector<test::RtpPackets> result;
    test::RtpPacketizer rtp(1, 1400);
    std::size_t bytes = 0;
    for (const auto& frame : test::EncodeClip({.width = 1920,
                             .height = 1080,
                             .frames = kFrames,
                             .gop = kGop,
                             .profile = test::ClipProfile::kHigh,
                             .bitrate = 6'000'000,
                             .noise = true})) {
      bytes += frame.data.size();
      result.push_back(rtp.H264(frame.data));
    }
    std::fprintf(stderr, "%d frames of 1080p, %.1f Mbit/s\n", kFrames,
                 static_cast<double>(bytes) * 8 * 25 / kFrames / 1e6);
    return result;
  }();
  return frames;
}

// `count` packets of the stream again and again, each in a slot of its own, the slots in order or
// shuffled.
Stream Lay(std::size_t count, bool shuffled) {
  constexpr std::size_t kSlot = 1536;
  std::vector<const test::RtpPacket*> source;
  for (const auto& frame : Frames()) {
    for (const auto& packet : frame) {
      source.push_back(&packet);
    }
  }
  std::vector<std::size_t> slots(count);
  std::iota(slots.begin(), slots.end(), std::size_t{0});
  if (shuffled) {
    std::shuffle(slots.begin(), slots.end(), std::mt19937_64(1));
  }
  Stream stream;
  stream.memory = std::make_unique<std::uint8_t[]>(count * kSlot);
  for (std::size_t i = 0; i < count; ++i) {
    const auto& packet = *source[i % source.size()];
    auto* place = stream.memory.get() + slots[i] * kSlot;
    std::memcpy(place, packet.data(), packet.size());
    const auto sequence = static_cast<std::uint16_t>(i + 1);
    place[2] = static_cast<std::uint8_t>(sequence >> 8);
    place[3] = static_cast<std::uint8_t>(sequence);
    stream.packets.push_back({place, static_cast<int>(packet.size())});
  }
  return stream;
}

Stream& StreamFor(bool cold) {
  static Stream warm = [] {
    std::size_t count = 0;
    for (std::size_t i = 0; i < kWarmFrames; ++i) {
      count += Frames()[i].size();
    }
    return Lay(count, false);
  }();
  static Stream coldStream = Lay(kColdPackets, true);
  return cold ? coldStream : warm;
}

// Goes round the packets for ever; sequence numbers run on from one round to the next.
class Feeder {
 public:
  explicit Feeder(bool cold) : stream_(StreamFor(cold)), renumber_(!cold) {}
  PacketRef Next() {
    if (next_ == stream_.packets.size()) {
      next_ = 0;
    }
    const PacketRef packet = stream_.packets[next_++];
    if (!renumber_) {
      return packet;
    }
    ++sequence_;
    packet.data[2] = static_cast<std::uint8_t>(sequence_ >> 8);
    packet.data[3] = static_cast<std::uint8_t>(sequence_);
    return packet;
  }

 private:
  Stream& stream_;
  const bool renumber_;
  std::size_t next_ = 0;
  std::uint16_t sequence_ = 0;
};

void Report(benchmark::State& state, std::uint64_t frames) {
  constexpr benchmark::IterationCount kSomeFrames = 2000;  // packets
  if (frames == 0 && state.iterations() > kSomeFrames) {
    state.SkipWithError("no frame came out");
  }
  state.counters["frames"] = static_cast<double>(frames);
}

void BM_memcpy(benchmark::State& state) {
  Feeder feeder(state.range(0) != 0);
  const std::unique_ptr<std::uint8_t[]> frame(new std::uint8_t[600000]);
  std::size_t length = 0;
  std::uint64_t frames = 0;
  for (auto _ : state) {
    const PacketRef packet = feeder.Next();
    // 12 bytes of RTP header and 2 of FU-A.
    const auto count = static_cast<std::size_t>(packet.length) - 14;
    std::memcpy(frame.get() + length, packet.data + 14, count);
    length += count;
    if ((packet.data[1] & 0x80) != 0) {
      benchmark::DoNotOptimize(frame.get());
      benchmark::ClobberMemory();
      length = 0;
      ++frames;
    }
  }
  Report(state, frames);
}

void BM_ours(benchmark::State& state) {
  Feeder feeder(state.range(0) != 0);
  const auto processer = std::make_unique<H264RTPProcesser>();
  std::uint64_t frames = 0;
  processer->SetFrameCallback(
      [](void* context, void* frame, int) {
        benchmark::DoNotOptimize(frame);
        ++*static_cast<std::uint64_t*>(context);
      },
      &frames);
  RTPProcesserBase* base = processer.get();
  benchmark::DoNotOptimize(base);  // called as its owner calls it
  for (auto _ : state) {
    const PacketRef packet = feeder.Next();
    base->ProcessData(packet.data, packet.length);
  }
  Report(state, frames);
  state.counters["lost"] = processer->GetMissingPacketCount();
}

// The same packets to whole access units, markers and time stamps looked at.
void BM_access_units(benchmark::State& state) {
  struct Sink final : cms::AccessUnitSink {
    void OnAccessUnit(const cms::AccessUnit& unit) override {
      benchmark::DoNotOptimize(unit.data.data());
      ++units;
    }
    std::uint64_t units = 0;
  };
  Feeder feeder(state.range(0) != 0);
  Sink sink;
  cms::AccessUnitAssembler assembler(sink, {});
  for (auto _ : state) {
    const PacketRef packet = feeder.Next();
    const std::span<const std::uint8_t> bytes(packet.data, static_cast<std::size_t>(packet.length));
    const std::uint32_t timestamp = std::uint32_t{bytes[4]} << 24 | std::uint32_t{bytes[5]} << 16 |
                                    std::uint32_t{bytes[6]} << 8 | std::uint32_t{bytes[7]};
    assembler.Take({bytes.subspan(12), timestamp, (bytes[1] & 0x80) != 0, false});
  }
  Report(state, sink.units);
  state.counters["dropped"] = assembler.DroppedUnits();
}

// The element alone: packets are pushed into its sink pad, frames are taken from its source pad.
void BM_gstreamer_rtph264depay(benchmark::State& state) {
  gst_init(nullptr, nullptr);
  Feeder feeder(state.range(0) != 0);
  GstElement* depay = gst_element_factory_make("rtph264depay", nullptr);
  if (depay == nullptr) {
    state.SkipWithError("no rtph264depay");
    return;
  }
  std::uint64_t frames = 0;
  GstPad* sink = gst_element_get_static_pad(depay, "sink");
  GstPad* source = gst_element_get_static_pad(depay, "src");
  GstPad* output = gst_pad_new("output", GST_PAD_SINK);
  gst_pad_set_element_private(output, &frames);
  gst_pad_set_chain_function(output, [](GstPad* pad, GstObject*, GstBuffer* buffer) {
    ++*static_cast<std::uint64_t*>(gst_pad_get_element_private(pad));
    gst_buffer_unref(buffer);
    return GST_FLOW_OK;
  });
  gst_pad_set_query_function(
      output, [](GstPad* pad, GstObject* parent, GstQuery* query) -> gboolean {
        if (GST_QUERY_TYPE(query) == GST_QUERY_CAPS) {
          GstCaps* caps =
              gst_caps_from_string("video/x-h264,stream-format=byte-stream,alignment=au");
          gst_query_set_caps_result(query, caps);
          gst_caps_unref(caps);
          return TRUE;
        }
        return gst_pad_query_default(pad, parent, query);
      });
  gst_pad_set_active(output, TRUE);
  gst_pad_link(source, output);
  gst_element_set_state(depay, GST_STATE_PLAYING);
  gst_pad_send_event(sink, gst_event_new_stream_start("bench"));
  GstCaps* caps = gst_caps_from_string(
      "application/"
      "x-rtp,media=video,clock-rate=90000,encoding-name=H264,packetization-mode=(string)1");
  gst_pad_send_event(sink, gst_event_new_caps(caps));
  gst_caps_unref(caps);
  GstSegment segment;
  gst_segment_init(&segment, GST_FORMAT_TIME);
  gst_pad_send_event(sink, gst_event_new_segment(&segment));
  for (auto _ : state) {
    const PacketRef packet = feeder.Next();
    const auto length = static_cast<gsize>(packet.length);
    gst_pad_chain(sink, gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, packet.data, length,
                                                    0, length, nullptr, nullptr));
  }
  Report(state, frames);
  gst_element_set_state(depay, GST_STATE_NULL);
  gst_pad_unlink(source, output);
  gst_object_unref(sink);
  gst_object_unref(source);
  gst_object_unref(output);
  gst_object_unref(depay);
}

// FFmpeg's demuxer reads each packet through a callback (one copy more than the others); its parser
// makes frames of what it depacketizes. It is asked for frames: an iteration is a packet all the
// same.
struct FFmpegInput {
  Feeder feeder;
  const char* description;
  std::uint64_t packets = 0;
};

int ReadForFFmpeg(void* opaque, std::uint8_t* buffer, int size) {
  auto& input = *static_cast<FFmpegInput*>(opaque);
  if (input.description != nullptr) {
    const auto length = static_cast<int>(std::strlen(input.description));
    if (length == 0) {
      return AVERROR_EOF;  // asked for more than once
    }
    const int count = std::min(length, size);
    std::memcpy(buffer, input.description, static_cast<std::size_t>(count));
    input.description += count;
    return count;
  }
  const PacketRef packet = input.feeder.Next();
  ++input.packets;
  const int count = std::min(packet.length, size);
  std::memcpy(buffer, packet.data, static_cast<std::size_t>(count));
  return count;
}

void BM_ffmpeg_rtp(benchmark::State& state) {
  av_log_set_level(AV_LOG_FATAL);
  FFmpegInput input{Feeder(state.range(0) != 0),
                    "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=-\r\nt=0 0\r\nc=IN IP4 127.0.0.1\r\n"
                    "m=video 0 RTP/AVP 96\r\na=rtpmap:96 H264/90000\r\n"
                    "a=fmtp:96 packetization-mode=1\r\n"};
  AVFormatContext* format = avformat_alloc_context();
  constexpr int kBuffer = 4096;
  format->pb = avio_alloc_context(
      static_cast<unsigned char*>(av_malloc(kBuffer)), kBuffer, 0, &input, ReadForFFmpeg,
      [](void*, std::uint8_t*, int size) { return size; }, nullptr);
  AVDictionary* options = nullptr;
  av_dict_set(&options, "sdp_flags", "custom_io", 0);
  av_dict_set(&options, "reorder_queue_size", "0", 0);
  if (avformat_open_input(&format, "bench.sdp", av_find_input_format("sdp"), &options) < 0) {
    state.SkipWithError("FFmpeg does not take the description");
    return;
  }
  av_dict_free(&options);
  format->pb->eof_reached = 0;
  input.description = nullptr;  // packets from now on
  format->pb->direct = 1;       // its receiver reports go straight to the (idle) write callback
  AVPacket* packet = av_packet_alloc();
  std::uint64_t frames = 0;
  std::uint64_t asked = 0;
  bool failed = false;
  for (auto _ : state) {
    for (++asked; input.packets < asked && !failed;) {
      failed = av_read_frame(format, packet) < 0;
      ++frames;
      av_packet_unref(packet);
    }
  }
  Report(state, failed ? 0 : frames);
  av_packet_free(&packet);
  AVIOContext* io = format->pb;
  avformat_close_input(&format);
  av_freep(&io->buffer);
  avio_context_free(&io);
}

}  // namespace

BENCHMARK(BM_memcpy)->ArgName("cold")->Arg(0)->Arg(1);
BENCHMARK(BM_ours)->ArgName("cold")->Arg(0)->Arg(1);
BENCHMARK(BM_access_units)->ArgName("cold")->Arg(0)->Arg(1);
BENCHMARK(BM_gstreamer_rtph264depay)->ArgName("cold")->Arg(0)->Arg(1);
BENCHMARK(BM_ffmpeg_rtp)->ArgName("cold")->Arg(0)->Arg(1);

BENCHMARK_MAIN();
