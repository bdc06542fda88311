#include "tools/support/live_site.h"

#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "cms/live/media/codec_id.h"
#include "cms/streaming/mjpeg_http_client.h"
#include "cms/streaming/rtsp_client.h"
#include "cms/streaming/rtsp_url.h"
#include "tools/support/camera_url.h"
#include "tools/support/picture_file.h"
#include "tools/support/transport_words.h"

namespace tools {
namespace {

std::string WithoutPassword(const cms::CameraUrl& url, const std::string& user) {
  if (user.empty()) {
    return url.plain;
  }
  const std::string scheme = url.scheme + "://";
  return scheme + user + "@" + url.plain.substr(scheme.size());
}

template <typename Client>
std::unique_ptr<Client> NewClient(FrameTap* tap) {
  if (tap == nullptr) {
    return std::make_unique<Client>();
  }
  return std::make_unique<TappedClient<Client>>(*tap);
}

}  // namespace

std::string WhyNothingArrived(const cms::ConnectionStatus& status) {
  return status.fault == cms::ConnectionFault::kNone
             ? "no frame arrived"
             : std::string(cms::ConnectionFaultName(status.fault)) + ": " + status.detail;
}

LiveSite::LiveSite(const LiveOptions& options, FrameTap* tap) : options_(options), tap_(tap) {
  const cms::CameraUrl url =
      ReadCameraUrl(options.url, {"rtsp", "rtsps", "http"},
                    "rtsp[s]://[user:password@]host[:port]/path or http://...");
  const std::string user = url.user.empty() ? options.user : url.user;
  const std::string password = url.user.empty() ? options.password : url.password;
  shownUrl_ = WithoutPassword(url, user);
  client_ = MakeClient(url, user, password);
  client_->SetThreadedDecode(true);
  const tagSIZE size{options.width, options.height};
  client_->SetDecoder(0, DECODER_PARAMETER_DISPLAY_SIZE, &size);
  Look(options.fisheye);
  if (options.decode) {
    SetDecoding(true);
  }
  if (options.listen) {
    SetListening(true);
  }
}

// The cameras first, all of them, so that no picture shows those of a view before.
void LiveSite::Look(const cms::FisheyeSettings& settings) {
  const cms::FisheyeView view = settings.View();
  for (std::size_t i = 0; settings.Dewarps() && i < view.cameras.size(); ++i) {
    const cms::stDewarpPosition position{static_cast<float>(view.cameras[i].pan),
                                         static_cast<float>(view.cameras[i].tilt)};
    const cms::stDewarpCamera camera{static_cast<int>(i), position,
                                     static_cast<float>(view.cameras[i].zoom)};
    client_->SetDecoder(0, DECODER_PARAMETER_DEWARP_CAMERA, &camera);
  }
  client_->SetFisheyeInfo(&settings.parameter);
}

// The format is a first guess: the client tells the player what the camera really sends.
void LiveSite::SetListening(bool on) {
  if (on == (player_ != nullptr)) {
    return;
  }
  if (!on) {
    client_->SetAudioOff(0);
    client_->DisableAudio(0);
    client_->SetAudioPlayer(nullptr);
    player_.reset();
    return;
  }
  auto player =
      std::make_unique<cms::CCMSAudioPlayer>(tCMSAudioPlayerConfig{}, options_.listenDevice);
  if (!player->Start()) {
    throw std::runtime_error(player->GetStatus().error +
                             " (orvanta audio devices lists what there is)");
  }
  player_ = std::move(player);
  client_->SetAudioPlayer(player_.get());
  client_->EnableAudio(0);
  client_->SetAudioOn(0);
}

std::unique_ptr<CMSClientBase> LiveSite::MakeClient(const cms::CameraUrl& url,
                                                    const std::string& user,
                                                    const std::string& password) const {
  if (url.scheme == "http") {
    auto client = NewClient<cms::MjpegHttpClient>(tap_);
    client->AllowBasic(options_.security.allowBasic);
    if (!client->Configure(url, user, password, options_.number)) {
      throw std::runtime_error(url.host + " has no IPv4 address");
    }
    return client;
  }
  cms::stRTSPClientConfig config;
  config.path = url.plain;
  config.user = user;
  config.password = password;
  config.siteNumber = options_.number;
  config.transport = options_.transport;
  options_.security.ApplyTo(&config);
  auto client = NewClient<CMSRTSPClient>(tap_);
  client->AllocChannelData(1);
  if (client->SetConfig(&config) == 0) {
    throw std::runtime_error(client->GetConnectionStatus().detail);
  }
  return client;
}

LiveSite::~LiveSite() {
  Close();
}

void LiveSite::Open() {
  opened_ = Clock::now();
  lastLine_ = opened_;
  client_->KeepOpen();
}

void LiveSite::Close() {
  client_->StopPlay();
  client_->CloseStream();
}

cms::CMSFrameData LiveSite::Totals() const {
  cms::CMSFrameData totals;
  client_->GetFrameData(&totals, sizeof totals);
  return totals;
}

std::string LiveSite::StatusLine() {
  const cms::CMSFrameData totals = Totals();
  const cms::ConnectionStatus status = Status();
  const auto now = Clock::now();
  const std::chrono::duration<double> elapsed = now - std::exchange(lastLine_, now);
  const cms::CMSFrameData last = std::exchange(lastTotals_, totals);
  char text[512];
  if (status.state == cms::ConnectionState::kPlaying &&
      status.fault != cms::ConnectionFault::kNone) {
    return "#" + std::to_string(options_.number + 1) + " " + shownUrl_ + "  " +
           cms::ConnectionFaultName(status.fault) + ": " + status.detail;
  }
  if (status.state != cms::ConnectionState::kPlaying) {
    const bool waiting = status.state == cms::ConnectionState::kWaiting;
    std::snprintf(text, sizeof text, "#%d %s  %s%s%s", options_.number + 1, shownUrl_.c_str(),
                  waiting ? "waiting to try again: " : cms::ConnectionStateName(status.state),
                  waiting ? cms::ConnectionFaultName(status.fault) : "",
                  (status.detail.empty() ? "" : ": " + status.detail).c_str());
    return text;
  }
  unsigned decoded = 0;
  unsigned notDecoded = 0;
  unsigned errors = 0;
  client_->GetDecodeStatus(0, &decoded, &notDecoded, &errors);
  const double seconds = SecondsDelivering();
  const auto frames = static_cast<double>(totals.videoFrames);
  std::snprintf(text, sizeof text,
                "#%d %s  %5.1f fps (average %5.1f)  %6.0f kbit/s  lost %llu  decoded %u  "
                "dropped %llu%s%s",
                options_.number + 1, shownUrl_.c_str(),
                static_cast<double>(totals.videoFrames - last.videoFrames) / elapsed.count(),
                seconds > 0 && frames > 0 ? frames / seconds : 0.0,
                static_cast<double>(totals.bytes - last.bytes) * 8 / 1000 / elapsed.count(),
                static_cast<unsigned long long>(totals.lostPackets), decoded,
                static_cast<unsigned long long>(totals.oversizeFrames +
                                                (options_.decode ? notDecoded + errors : 0)),
                status.detail.empty() ? "" : "  ", status.detail.c_str());
  return text + (status.sound.empty() ? "" : "  sound: " + status.sound);
}

// Since the first frame, pauses of a lost camera included.
double LiveSite::SecondsDelivering() const {
  const std::chrono::duration<double> open = Clock::now() - opened_;
  return open.count() - Totals().firstFrameMs / 1000.0;
}

std::string LiveSite::Codec() const {
  return std::string(cms::EncodingNameOf(cms::CodecOfVideoType(client_->GetVideoType(0))));
}

std::string LiveSite::AudioCodec() const {
  const auto* const rtsp = dynamic_cast<const CMSRTSPClient*>(client_.get());
  return rtsp != nullptr ? rtsp->GetAudioEncoding() : "";
}

std::string LiveSite::Transport() const {
  const auto* const rtsp = dynamic_cast<const CMSRTSPClient*>(client_.get());
  return rtsp != nullptr ? TransportWord(rtsp->GetTransport()) : "";
}

// How far the camera's clock goes before ours; null while it is not known.
nlohmann::ordered_json LiveSite::ClockAheadMs(const cms::CMSFrameData& totals) {
  if (totals.cameraUs == 0 || totals.timeUs == 0) {
    return nullptr;
  }
  return (totals.cameraUs - totals.timeUs) / 1000;
}

nlohmann::ordered_json LiveSite::Json() const {
  const cms::CMSFrameData totals = Totals();
  unsigned width = 0;
  unsigned height = 0;
  unsigned decoded = 0;
  unsigned notDecoded = 0;
  unsigned errors = 0;
  client_->GetWidthAndHeight(0, &width, &height);
  client_->GetDecodeStatus(0, &decoded, &notDecoded, &errors);
  const double seconds = SecondsDelivering();
  const auto perSecond = [seconds](double count) {
    return seconds > 0 ? std::round(count / seconds * 100) / 100 : 0.0;
  };
  return {{"url", shownUrl_},
          {"codec", Codec()},
          {"width", width},
          {"height", height},
          {"frames", totals.videoFrames},
          {"key_frames", totals.keyFrames},
          {"bytes", totals.bytes},
          {"decoded", decoded},
          {"not_decoded", options_.decode ? notDecoded : totals.videoFrames},
          {"decode_errors", errors},
          {"lost_packets", totals.lostPackets},
          {"audio_frames", totals.audioFrames},
          {"audio_codec", AudioCodec()},
          {"transport", Transport()},
          {"audio_problem", Status().sound},
          {"camera_clock_ahead_ms", ClockAheadMs(totals)},
          {"fps", perSecond(static_cast<double>(totals.videoFrames))},
          {"kbps", perSecond(static_cast<double>(totals.bytes) * 8 / 1000)},
          {"open_ms", totals.openMs},
          {"first_frame_ms", totals.firstFrameMs},
          {"first_picture_ms", totals.firstPictureMs},
          {"oversize_frames", totals.oversizeFrames},
          {"reconnects", Status().reconnects}};
}

nlohmann::ordered_json LiveSite::StatusJson() {
  const cms::ConnectionStatus status = Status();
  nlohmann::ordered_json told = Json();
  told["state"] = cms::ConnectionStateName(status.state);
  told["fault"] = status.fault == cms::ConnectionFault::kNone
                      ? ""
                      : std::string(cms::ConnectionFaultName(status.fault));
  told["detail"] = status.detail;
  const cms::CMSFrameData totals = Totals();
  told["recent_fps"] = totals.fps;
  told["recent_kbps"] = totals.kbps;
  return told;
}

void LiveSite::SetDecoding(bool decode) {
  if (decode) {
    client_->EnableDecode(0, 0);
  } else {
    client_->DisableDecode(0);
  }
  client_->SetMustDecode(decode ? 1 : 0);
}

unsigned LiveSite::DecodedPictures() const {
  unsigned decoded = 0;
  client_->GetDecodeStatus(0, &decoded, nullptr, nullptr);
  return decoded;
}

bool LiveSite::WithPicture(const std::function<void(const unsigned char*, const tagSIZE&)>& use) {
  // The unlocking is owed for no picture as well.
  struct Unlock {
    CMSClientBase& client;
    ~Unlock() { client.unlockDecodedImage(0); }
  };
  tagSIZE size{};
  const unsigned char* const picture = client_->lockDecodedImage(0, &size);
  const Unlock unlock{*client_};
  if (picture != nullptr) {
    use(picture, size);
  }
  return picture != nullptr;
}

void LiveSite::WriteSnapshot(const std::string& path) {
  if (!WithPicture([&](const unsigned char* picture, const tagSIZE& size) {
        WritePng(path, picture, size.cx, size.cy);
      })) {
    throw std::runtime_error("no picture was decoded, so " + path + " was not written");
  }
}

}  // namespace tools
