// MJPEG cameras over HTTP: an endless multipart/x-mixed-replace answer (RFC 2046) of JPEG parts.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "cms/live/media/frame_header.h"
#include "cms/streaming/http_client.h"
#include "cms/streaming/login.h"
#include "cms/streaming/rtsp_url.h"

namespace tools {

class MjpegHttpClient final : public CMSHTTPClient {
 public:
  ~MjpegHttpClient() override { StopPlay(); }

  // Resolves the host; throws std::runtime_error when it has no address.
  void Configure(const cms::CameraUrl& url, const std::string& user, const std::string& password,
                 int siteNumber);

  int Pause() override { return 0; }  // HTTP knows no pause
  int Resume() override { return 0; }
  void OnStreamVideoFrame(unsigned channel, int reserved, unsigned char* data, int length,
                          int extra, int videoFlag) override;
  void OnStreamAudioFrame(unsigned, int, unsigned char*, int, int) override {}
  int ParseStreamFrame(CRawBuffer* buffer, int* isAudio, int* frameLength, int* videoFlag,
                       int* extra, int* more) override;

 protected:
  int OpenForKeeping() override;

 private:
  enum class Expect { kHead, kPartHead, kBody, kNothing };

  int OpenOnce();  // the status of the answer, 0 when there was none
  std::string Request();
  bool ReadHead(CRawBuffer* buffer);
  bool ReadPartHead(CRawBuffer* buffer);
  int FindFrame(CRawBuffer* buffer);
  int FailStatus(int status);

  cms::CameraUrl url_;
  cms::Login login_;
  bool haveCredentials_ = false;

  std::mutex mutex_;
  std::condition_variable answered_;
  int status_ = 0;    // of the answer; guarded by mutex_
  std::string head_;  // guarded by mutex_

  // The process thread's; reset before it starts.
  Expect expect_ = Expect::kHead;
  std::string boundary_;
  long bodyLength_ = -1;  // of the part, -1: up to the next boundary
  long searched_ = 0;     // bytes of the part known to hold no boundary
  std::uint32_t sequence_ = 0;
  unsigned char header_[cms::kVideoHeaderRoom] = {};
};

}  // namespace tools
