// Plays a video file for ever into a payloader, as a camera would send it.
#pragma once

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "tools/testcamera/camera_options.h"
#include "tools/testcamera/gst_ptr.h"

namespace testcamera {

// Pushes a file's pictures into an appsrc at their time, from its own thread, until destroyed. At
// the file's end it starts over; time stamps go on, so a client sees one endless stream.
class FileFeed {
 public:
  FileFeed(const CameraOptions& options, GstElement* appsrc);
  ~FileFeed();
  FileFeed(const FileFeed&) = delete;
  FileFeed& operator=(const FileFeed&) = delete;

 private:
  void Run();
  bool Play();
  bool WaitFor(std::chrono::steady_clock::duration time);

  const std::string path_;
  const GstClockTime pictureTime_;  // where the file does not tell
  const ObjectPtr<GstElement> appsrc_;
  GstClockTime base_ = 0;    // the pipeline's running time when playing began
  GstClockTime played_ = 0;  // length of the rounds so far

  std::mutex mutex_;
  std::condition_variable stop_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace testcamera
