// One camera of `orvanta live`: the client, what it was asked for, and what came of it.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "cms/audio/audio_player.h"
#include "cms/live/client_base.h"
#include "cms/live/media/fisheye.h"
#include "cms/streaming/rtsp_client.h"
#include "cms/streaming/rtsp_url.h"
#include "tools/support/camera_security.h"
#include "tools/support/frame_tap.h"

namespace tools {

struct LiveOptions {
  std::string url;
  std::string onvif;  // the onvif[s]:// URL by which it was found; empty without one
  std::string user;
  std::string password;
  int transport = cms::kRtspTransportUdp;
  CameraSecurity security;
  bool decode = true;
  long width = 0;  // of the decoded picture; 0: as the camera sends it
  long height = 0;
  cms::FisheyeSettings fisheye;  // how its pictures are looked at
  int number = 0;                // of the site, from 0
  std::string name;              // of the site, in the databases; empty: its number
  bool listen = false;           // play the sound on listenDevice, a name of the ALSA configuration
  std::string listenDevice;
};

// For people, of a site that never delivered a frame.
std::string WhyNothingArrived(const cms::ConnectionStatus& status);

class LiveSite {
 public:
  // Throws UsageError for a URL that cannot be read, std::runtime_error for one without a host.
  // The tap, if there is one, outlives it.
  explicit LiveSite(const LiveOptions& options, FrameTap* tap = nullptr);
  ~LiveSite();

  void Open();   // in the background
  void Close();  // asks the camera to stop; totals stay readable

  cms::CMSFrameData Totals() const;
  cms::ConnectionStatus Status() const { return client_->GetConnectionStatus(); }
  CMSClientBase& Client() { return *client_; }
  bool EverDelivered() const { return Totals().videoFrames > 0; }

  std::string StatusLine();                             // rates since the last one, for people
  nlohmann::ordered_json Json() const;                  // before Close
  const std::string& Url() const { return shownUrl_; }  // without the password

  std::string Codec() const;  // of its pictures, as session descriptions call it; empty: not known

  // What the site does at this moment, beside the totals.
  nlohmann::ordered_json StatusJson();

  // Decoding on and off while the site runs. It begins with the next key frame.
  void SetDecoding(bool decode);
  // Plays the site's sound, or no longer. Throws std::runtime_error when the device cannot be used.
  void SetListening(bool on);
  // From the next picture on.
  void Look(const cms::FisheyeSettings& settings);
  unsigned DecodedPictures() const;
  // Calls `use` with the newest picture as BGRA rows without gaps, during which decoding waits;
  // false when there is none.
  bool WithPicture(const std::function<void(const unsigned char*, const tagSIZE&)>& use);

  // Writes the newest picture; throws std::runtime_error when there is none or the file fails.
  void WriteSnapshot(const std::string& path);

 private:
  using Clock = std::chrono::steady_clock;

  std::unique_ptr<CMSClientBase> MakeClient(const cms::CameraUrl& url, const std::string& user,
                                            const std::string& password) const;
  LiveOptions options_;
  FrameTap* const tap_;

  std::string shownUrl_;
  std::unique_ptr<cms::CCMSAudioPlayer> player_;  // outlives the client, which calls it
  std::unique_ptr<CMSClientBase> client_;
  static nlohmann::ordered_json ClockAheadMs(const cms::CMSFrameData& totals);
  std::string AudioCodec() const;
  std::string Transport() const;
  double SecondsDelivering() const;

  Clock::time_point opened_;
  Clock::time_point lastLine_;
  cms::CMSFrameData lastTotals_;
};

}  // namespace tools
