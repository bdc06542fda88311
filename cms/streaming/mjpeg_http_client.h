// MjpegHttpClient: MJPEG cameras over HTTP, which answer one request with JPEG pictures without end
// (multipart/x-mixed-replace, RFC 2046).
#pragma once

#include <memory>
#include <string>

#include "cms/runtime/api.h"
#include "cms/streaming/http_client.h"
#include "cms/streaming/rtsp_url.h"

namespace cms {

// Channel 0 has the pictures, each of them a key frame. Logs in (Basic, Digest) when the camera
// asks for it, at every opening anew. A part that is no JPEG is dropped. Threads, keeping and
// recording are those of CMSHTTPClient and CMSClientBase; the camera has 10 s to answer.
class CMS_API MjpegHttpClient : public CMSHTTPClient {
 public:
  MjpegHttpClient();
  ~MjpegHttpClient() override;

  // Whether Basic is answered, by which everybody on the way can read the password; not at first.
  // Before the stream is opened.
  void AllowBasic(bool allow);
  // Waits for the resolver. `user` empty: without a login; `siteNumber`, from 0, goes into the
  // frame-rate report alone. False when the host has no address, of IPv4 or IPv6, or while playing.
  bool Configure(const CameraUrl& url, const std::string& user, const std::string& password,
                 int siteNumber);

  int Pause() override { return 0; }  // HTTP knows no pause
  int Resume() override { return 0; }
  void OnStreamVideoFrame(unsigned channel, int reserved, unsigned char* data, int length,
                          int extra, int videoFlag) override;
  void OnStreamAudioFrame(unsigned, int, unsigned char*, int, int) override {}
  int ParseStreamFrame(CRawBuffer* buffer, int* isAudio, int* frameLength, int* videoFlag,
                       int* extra, int* more) override;

 protected:
  bool OpenForKeeping() override;

 private:
  struct State;

  int OpenOnce();  // the status of the answer, 0 when there was none
  std::string Request();
  bool ReadChallenges();  // of the last answer
  bool FailStatus(int status);

  const std::unique_ptr<State> state_;
};

}  // namespace cms
