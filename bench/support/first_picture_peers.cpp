#include "bench/support/first_picture_peers.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include "tests/support/encoded_clip.h"

namespace bench {
namespace {

using Clock = std::chrono::steady_clock;

double Since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// One opening by libavformat.
class FFmpegOpening {
 public:
  explicit FFmpegOpening(const FirstPictureJob& job) : job_(job) {}
  ~FFmpegOpening() {
    sws_freeContext(scaler_);
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&decoder_);
    avformat_close_input(&format_);
  }
  FFmpegOpening(const FFmpegOpening&) = delete;
  FFmpegOpening& operator=(const FFmpegOpening&) = delete;

  std::optional<double> Run() {
    if (!Open()) {
      return std::nullopt;
    }
    while (Since(start_) < job_.limit && av_read_frame(format_, packet_) >= 0) {
      const bool video = packet_->stream_index == stream_;
      const int sent = video ? avcodec_send_packet(decoder_, packet_) : -1;
      av_packet_unref(packet_);
      while (sent >= 0 && avcodec_receive_frame(decoder_, frame_) >= 0) {
        if (ShowsPicture()) {
          return Since(start_);
        }
      }
    }
    return std::nullopt;
  }

 private:
  bool Open() {
    AVDictionary* options = nullptr;
    av_dict_set(&options, "rtsp_transport", job_.tcp ? "tcp" : "udp", 0);
    av_dict_set(&options, "fflags", "nobuffer", 0);
    av_dict_set(&options, "probesize", "32", 0);
    av_dict_set(&options, "analyzeduration", "0", 0);
    const int opened = avformat_open_input(&format_, job_.url.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (opened < 0 || avformat_find_stream_info(format_, nullptr) < 0) {
      return false;
    }
    stream_ = av_find_best_stream(format_, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (stream_ < 0) {
      return false;
    }
    const AVCodecParameters* parameters = format_->streams[stream_]->codecpar;
    const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
    decoder_ = avcodec_alloc_context3(codec);
    avcodec_parameters_to_context(decoder_, parameters);
    decoder_->thread_count = 1;
    decoder_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    return avcodec_open2(decoder_, codec, nullptr) >= 0;
  }

  bool ShowsPicture() {
    if ((frame_->flags & AV_FRAME_FLAG_CORRUPT) != 0 || frame_->decode_error_flags != 0) {
      return false;
    }
    scaler_ = sws_getCachedContext(
        scaler_, frame_->width, frame_->height, static_cast<AVPixelFormat>(frame_->format),
        job_.width, job_.height, AV_PIX_FMT_BGRA, SWS_FAST_BILINEAR, nullptr, nullptr, nullptr);
    bgra_.resize(static_cast<std::size_t>(job_.width) * static_cast<std::size_t>(job_.height) * 4);
    std::uint8_t* const planes[] = {bgra_.data()};
    const int strides[] = {job_.width * 4};
    sws_scale(scaler_, frame_->data, frame_->linesize, 0, frame_->height, planes, strides);
    return IsWhole(job_, bgra_.data(), strides[0]);
  }

  const FirstPictureJob& job_;
  const Clock::time_point start_ = Clock::now();
  AVFormatContext* format_ = nullptr;
  AVCodecContext* decoder_ = nullptr;
  AVPacket* packet_ = av_packet_alloc();
  AVFrame* frame_ = av_frame_alloc();
  SwsContext* scaler_ = nullptr;
  int stream_ = -1;
  std::vector<std::uint8_t> bgra_;
};

// What the streaming thread tells the one that waits.
struct Arrival {
  const FirstPictureJob& job;
  std::mutex mutex;
  std::condition_variable arrived;
  bool whole = false;
};

GstPadProbeReturn OnPicture(GstPad*, GstPadProbeInfo* info, gpointer data) {
  auto& arrival = *static_cast<Arrival*>(data);
  GstBuffer* const picture = GST_PAD_PROBE_INFO_BUFFER(info);
  GstMapInfo map;
  if (!GST_BUFFER_FLAG_IS_SET(picture, GST_BUFFER_FLAG_CORRUPTED) &&
      gst_buffer_map(picture, &map, GST_MAP_READ) != FALSE) {
    const bool whole = IsWhole(arrival.job, map.data, arrival.job.width * 4);
    gst_buffer_unmap(picture, &map);
    const std::lock_guard lock(arrival.mutex);
    arrival.whole = arrival.whole || whole;
    arrival.arrived.notify_all();
  }
  return GST_PAD_PROBE_OK;
}

}  // namespace

bool IsWhole(const FirstPictureJob& job, const std::uint8_t* bgra, int stride) {
  return test::ReadFrameNumber(bgra, job.width, job.height, stride, job.width) >= 0;
}

std::optional<double> FFmpegFirstPicture(const FirstPictureJob& job) {
  av_log_set_level(AV_LOG_FATAL);
  return FFmpegOpening(job).Run();
}

std::optional<double> GStreamerFirstPicture(const FirstPictureJob& job) {
  Arrival arrival{.job = job, .mutex = {}, .arrived = {}, .whole = false};
  const auto start = Clock::now();
  GError* error = nullptr;
  GstElement* const pipeline = gst_parse_launch(
      ("rtspsrc latency=0 protocols=" + std::string(job.tcp ? "tcp" : "udp") +
       " location=" + job.url +
       " ! rtph264depay ! h264parse ! avdec_h264 ! videoconvert ! video/x-raw,format=BGRA ! "
       "fakesink name=sink sync=false async=false")
          .c_str(),
      &error);
  if (error != nullptr) {
    std::fprintf(stderr, "%s\n", error->message);
    g_error_free(error);
    return std::nullopt;
  }
  GstElement* const sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  GstPad* const pad = gst_element_get_static_pad(sink, "sink");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, OnPicture, &arrival, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  std::optional<double> taken;
  {
    std::unique_lock lock(arrival.mutex);
    if (arrival.arrived.wait_for(lock, std::chrono::duration<double, std::milli>(job.limit),
                                 [&] { return arrival.whole; })) {
      taken = Since(start);
    }
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pad);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
  return taken;
}

}  // namespace bench
