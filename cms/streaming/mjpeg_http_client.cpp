#include "cms/streaming/mjpeg_http_client.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <span>

#include "cms/live/media/codec_id.h"
#include "cms/live/media/frame_header.h"
#include "cms/runtime/clock.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/log.h"
#include "cms/runtime/thread_annotations.h"
#include "cms/streaming/internal/multipart_reader.h"
#include "cms/streaming/login.h"

namespace cms {
namespace {

constexpr std::chrono::seconds kAnswerLimit{10};

}  // namespace

struct MjpegHttpClient::State {
  CameraUrl url;
  Login login;
  bool haveCredentials = false;

  CMSCritical lock;
  std::condition_variable_any answered;
  int status CMS_GUARDED_BY(lock) = 0;  // of the answer
  std::string head CMS_GUARDED_BY(lock);

  // The process thread's; reset before it starts.
  MultipartReader reader{kMaxRawBytes};
  std::uint32_t sequence = 0;
  unsigned char header[kVideoHeaderRoom] = {};
};

MjpegHttpClient::MjpegHttpClient() : state_(std::make_unique<State>()) {
  AllowBasic(false);
}

MjpegHttpClient::~MjpegHttpClient() {
  StopPlay();
}

bool MjpegHttpClient::Configure(const CameraUrl& url, const std::string& user,
                                const std::string& password, int siteNumber) {
  const auto address = ResolveAddress(url.host);
  if (!address) {
    return false;
  }
  state_->url = url;
  state_->haveCredentials = !user.empty();
  state_->login.SetCredentials(user, password);
  const std::string request = Request();
  stHTTPClientConfig config;
  config.ip = *address;
  config.port = url.port;
  config.request = request.data();
  config.requestLength = static_cast<int>(request.size());
  config.videoType = CMS_VIDEO_MJPEG;
  FpsReport().SetReportFormat("[LiveRecord]Site=%2d(%s),Stream=%d", siteNumber + 1,
                              url.host.c_str(), 0);
  if (SetConfig(&config) == 0) {
    return false;
  }
  SetCameraAddress(url.plain);
  return true;
}

void MjpegHttpClient::AllowBasic(bool allow) {
  state_->login.AllowBasic(allow);
}

// HTTP/1.0, so that no server answers in chunks.
std::string MjpegHttpClient::Request() {
  const CameraUrl& url = state_->url;
  const bool ipv6 = url.host.find(':') != std::string::npos;  // without an interface behind it
  const std::string host = ipv6 ? "[" + url.host.substr(0, url.host.find('%')) + "]" : url.host;
  return "GET " + url.path + " HTTP/1.0\r\nHost: " + host + ":" + std::to_string(url.port) +
         "\r\nAccept: multipart/x-mixed-replace, image/jpeg\r\n" +
         state_->login.AuthorizationLine("GET", url.path) + "\r\n";
}

bool MjpegHttpClient::OpenForKeeping() {
  state_->login.ForgetChallenge();
  SetRequest(Request());
  int status = OpenOnce();
  if (status == 401 && state_->haveCredentials && ReadChallenges()) {
    CloseForKeeping();
    SetRequest(Request());
    status = OpenOnce();
  }
  if (status == 200) {
    return true;
  }
  const ConnectionStatus last = GetConnectionStatus();
  CloseForKeeping();
  SetFault(last.fault, last.detail);
  return status != 0 && FailStatus(status);
}

bool MjpegHttpClient::ReadChallenges() {
  const ScopeLock guard(state_->lock);
  return state_->login.ReadChallenges(state_->head);
}

int MjpegHttpClient::OpenOnce() {
  State& state = *state_;
  {
    const ScopeLock guard(state.lock);
    state.status = 0;
  }
  state.reader.Begin();
  if (!CMSHTTPClient::OpenForKeeping()) {
    return 0;
  }
  const ScopeLock guard(state.lock);
  if (!state.answered.wait_for(state.lock, kAnswerLimit,
                               [&]() CMS_NO_THREAD_SAFETY_ANALYSIS { return state.status != 0; })) {
    SetFault(ConnectionFault::kNoAnswer, state.url.plain + ": no answer within 10 s");
  }
  return state.status;
}

bool MjpegHttpClient::FailStatus(int status) {
  const std::string answered =
      state_->url.plain + " was answered with status " + std::to_string(status);
  switch (status) {
    case 401:
    case 403:
      SetFault(
          ConnectionFault::kPasswordRefused,
          answered + (!state_->haveCredentials ? ": the camera wants a user name and a password"
                      : state_->login.Problem().empty() ? ": user name or password is wrong"
                                                        : ": " + state_->login.Problem()));
      break;
    case 404:
      SetFault(ConnectionFault::kNoSuchStream, answered);
      break;
    case 503:
      SetFault(ConnectionFault::kCameraFull, answered);
      break;
    default:
      SetFault(ConnectionFault::kRefused, answered);
  }
  return false;
}

int MjpegHttpClient::ParseStreamFrame(CRawBuffer* buffer, int* isAudio, int* frameLength,
                                      int* videoFlag, int*, int* more) {
  *isAudio = 0;
  *videoFlag = 1;
  State& state = *state_;
  const MultipartReader::Step step = state.reader.Next(*buffer);
  *more = step != MultipartReader::Step::kWait ? 1 : 0;
  if (step == MultipartReader::Step::kHead) {
    const ScopeLock guard(state.lock);
    state.status = state.reader.Status();
    state.head = state.reader.Head();
    if (IsLogged(LogLevel::kTrace)) {
      Log(LogLevel::kTrace, "http", "<- " + state.url.plain + "\n" + state.head);
    }
    state.answered.notify_all();
  }
  *frameLength = step == MultipartReader::Step::kPart ? state.reader.PartLength() : 0;
  return *frameLength != 0 ? 1 : 0;
}

void MjpegHttpClient::OnStreamVideoFrame(unsigned channel, int, unsigned char* data, int length,
                                         int, int) {
  const bool jpeg = length > 2 && data[0] == 0xFF && data[1] == 0xD8;
  if (!jpeg) {
    return;
  }
  VideoFrameInfo info;
  info.payloadSize = static_cast<std::uint32_t>(length);
  info.hostSeconds = WallSeconds();
  info.frameRate = FpsReport().GetRecentFps();
  info.frameType = kKeyFrame;
  info.videoType = CMS_VIDEO_MJPEG;
  info.sequence = ++state_->sequence;
  BuildVideoFrameHeader(std::span<std::uint8_t, kVideoHeaderRoom>(state_->header), info);
  OnGetVideoFrame(state_->header, sizeof state_->header, data, length, channel, kKeyFrame);
}

}  // namespace cms
