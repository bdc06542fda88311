// Reads the pictures of a video file as they are encoded.
#pragma once

#include <gst/app/gstappsink.h>
#include <gst/gst.h>

#include <string>

#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/gst_ptr.h"

namespace testcamera {

// One pass over the first video stream of a container or elementary stream with H.264, H.265,
// MPEG-4 or JPEG pictures. For one thread.
class FileReader {
 public:
  // Throws std::runtime_error that says what is wrong with the file.
  explicit FileReader(const std::string& path);
  ~FileReader();
  FileReader(const FileReader&) = delete;
  FileReader& operator=(const FileReader&) = delete;

  VideoCodec Codec() const { return codec_; }

  // The next picture in decoding order, H.264 and H.265 with 4-byte lengths in front of its units;
  // nullptr at the end.
  MiniPtr<GstSample> Next();

 private:
  static void OnPad(GstElement* parse, GstPad* pad, FileReader* reader);

  ObjectPtr<GstElement> pipeline_;
  ObjectPtr<GstElement> sink_;
  MiniPtr<GstSample> first_;
  bool linked_ = false;  // by the first video pad, on the parser's thread
  VideoCodec codec_ = VideoCodec::kH264;
};

}  // namespace testcamera
