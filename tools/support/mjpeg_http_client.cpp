#include "tools/support/mjpeg_http_client.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <stdexcept>

#include "cms/exports/text_exports.h"
#include "cms/live/media/frame_header.h"
#include "cms/runtime/clock.h"

namespace tools {
namespace {

constexpr std::size_t kLongestHead = 64 * 1024;
constexpr std::chrono::seconds kAnswerLimit{10};

std::string_view View(CRawBuffer* buffer) {
  return {reinterpret_cast<const char*>(buffer->Data()),
          static_cast<std::size_t>(buffer->Length())};
}

// The value of the first header of that name in a head (RFC 9110, section 5), or nothing.
std::string HeaderValue(std::string_view head, std::string_view name) {
  while (!head.empty()) {
    const std::size_t end = std::min(head.find('\n'), head.size() - 1);
    std::string line(head.substr(0, end));
    head.remove_prefix(end + 1);
    const std::size_t colon = line.find(':');
    if (colon != std::string::npos &&
        CMSStrcmpAnyCase(line.substr(0, colon).c_str(), std::string(name).c_str()) == 0) {
      line.erase(0, line.find_first_not_of(" \t", colon + 1));
      line.erase(line.find_last_not_of(" \t\r") + 1);
      return line;
    }
  }
  return {};
}

}  // namespace

void MjpegHttpClient::Configure(const cms::CameraUrl& url, const std::string& user,
                                const std::string& password, int siteNumber) {
  const auto address = cms::ResolveIPv4(url.host);
  if (!address) {
    throw std::runtime_error(url.host + " has no IPv4 address");
  }
  url_ = url;
  haveCredentials_ = !user.empty();
  login_.SetCredentials(user, password);
  const std::string request = Request();
  stHTTPClientConfig config;
  config.address = *address;
  config.port = url.port;
  config.request = request.data();
  config.requestLength = static_cast<int>(request.size());
  config.videoType = CMS_VIDEO_MJPEG;
  SetConfig(&config);
  fpsReport_.SetReportFormat("[LiveRecord]Site=%2d(%s),Stream=%d", siteNumber + 1, url.host.c_str(),
                             0);
}

// HTTP/1.0, so that no server answers in chunks.
std::string MjpegHttpClient::Request() {
  return "GET " + url_.path + " HTTP/1.0\r\nHost: " + url_.host + ":" + std::to_string(url_.port) +
         "\r\nAccept: multipart/x-mixed-replace, image/jpeg\r\n" +
         login_.AuthorizationLine("GET", url_.path) + "\r\n";
}

int MjpegHttpClient::OpenForKeeping() {
  login_.ForgetChallenge();
  SetRequest(Request());
  int status = OpenOnce();
  if (status == 401 && haveCredentials_ && login_.ReadChallenges(head_)) {
    CloseForKeeping();
    SetRequest(Request());
    status = OpenOnce();
  }
  if (status == 200) {
    return 1;
  }
  const ConnectionStatus last = GetConnectionStatus();
  CloseForKeeping();
  SetFault(last.fault, last.detail);
  return status == 0 ? 0 : FailStatus(status);
}

int MjpegHttpClient::OpenOnce() {
  {
    std::lock_guard lock(mutex_);
    status_ = 0;
    head_.clear();
  }
  expect_ = Expect::kHead;
  if (CMSHTTPClient::OpenForKeeping() == 0) {
    return 0;
  }
  std::unique_lock lock(mutex_);
  if (!answered_.wait_for(lock, kAnswerLimit, [this] { return status_ != 0; })) {
    SetFault(ConnectionFault::kNoAnswer, url_.plain + ": no answer within 10 s");
  }
  return status_;
}

int MjpegHttpClient::FailStatus(int status) {
  const std::string answered = url_.plain + " was answered with status " + std::to_string(status);
  switch (status) {
    case 401:
    case 403:
      SetFault(ConnectionFault::kPasswordRefused,
               answered + (!haveCredentials_ ? ": the camera wants a user name and a password"
                           : login_.Problem().empty() ? ": user name or password is wrong"
                                                      : ": " + login_.Problem()));
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
  return 0;
}

int MjpegHttpClient::ParseStreamFrame(CRawBuffer* buffer, int* isAudio, int* frameLength,
                                      int* videoFlag, int*, int* more) {
  *isAudio = 0;
  *videoFlag = 1;
  bool moved = false;
  switch (expect_) {
    case Expect::kHead:
      moved = ReadHead(buffer);
      break;
    case Expect::kPartHead:
      moved = ReadPartHead(buffer);
      break;
    case Expect::kBody:
      *frameLength = FindFrame(buffer);
      if (*frameLength > 0) {
        expect_ = Expect::kPartHead;
        return 1;
      }
      moved = expect_ != Expect::kBody;  // a part without a frame
      break;
    case Expect::kNothing:
      buffer->Clear();
      break;
  }
  *more = moved ? 1 : 0;
  return 0;
}

bool MjpegHttpClient::ReadHead(CRawBuffer* buffer) {
  const std::string_view text = View(buffer);
  const std::size_t end = text.find("\r\n\r\n");
  if (end == std::string_view::npos && text.size() < kLongestHead) {
    return false;
  }
  const std::string head(text.substr(0, std::min(end, kLongestHead)));
  const std::size_t space = std::min(head.find(' '), head.size());
  int status = 0;
  std::from_chars(head.data() + std::min(space + 1, head.size()), head.data() + head.size(),
                  status);
  const std::string type = HeaderValue(head, "Content-Type");
  const std::size_t at = type.find("boundary=");
  if (status < 100 || (status == 200 && at == std::string::npos)) {
    status = 502;  // no HTTP answer, or no multipart stream
  }
  if (status == 200) {
    boundary_ = type.substr(at + 9);
    boundary_.erase(0, boundary_.find_first_not_of('"'));
    boundary_ = boundary_.substr(0, boundary_.find_first_of("\"; "));
    // Some cameras announce the boundary with the dashes that belong in front of it.
    boundary_ = boundary_.starts_with("--") ? boundary_ : "--" + boundary_;
    buffer->Erase(0, static_cast<long>(end) + 4);
  }
  expect_ = status == 200 ? Expect::kPartHead : Expect::kNothing;
  std::lock_guard lock(mutex_);
  status_ = status;
  head_ = head + "\r\n";
  answered_.notify_all();
  return true;
}

bool MjpegHttpClient::ReadPartHead(CRawBuffer* buffer) {
  const std::string_view text = View(buffer);
  const std::size_t start = text.find(boundary_);
  const std::size_t end = start == std::string_view::npos ? start : text.find("\r\n\r\n", start);
  if (end == std::string_view::npos) {
    return false;  // the raw buffer's own limit bounds what is waited for
  }
  const std::string length = HeaderValue(text.substr(start, end - start + 2), "Content-Length");
  bodyLength_ = -1;
  std::from_chars(length.data(), length.data() + length.size(), bodyLength_);
  searched_ = 0;
  buffer->Erase(0, static_cast<long>(end) + 4);
  expect_ = Expect::kBody;
  return true;
}

// 0 while the frame is not there whole, or when the part has none that could be kept.
int MjpegHttpClient::FindFrame(CRawBuffer* buffer) {
  const std::string_view text = View(buffer);
  if (bodyLength_ > kMaxRawBytes) {
    expect_ = Expect::kPartHead;
    return 0;
  }
  if (bodyLength_ > 0) {
    return static_cast<long>(text.size()) >= bodyLength_ ? static_cast<int>(bodyLength_) : 0;
  }
  const std::size_t end = text.find("\r\n" + boundary_, static_cast<std::size_t>(searched_));
  if (end == std::string_view::npos) {
    const long unsearched = static_cast<long>(boundary_.size()) + 1;
    searched_ = std::max(0L, static_cast<long>(text.size()) - unsearched);
    return 0;
  }
  if (end == 0) {
    expect_ = Expect::kPartHead;
  }
  return static_cast<int>(end);
}

void MjpegHttpClient::OnStreamVideoFrame(unsigned channel, int, unsigned char* data, int length,
                                         int, int) {
  const bool jpeg = length > 2 && data[0] == 0xFF && data[1] == 0xD8;
  if (!jpeg) {
    return;
  }
  cms::VideoFrameInfo info;
  info.payloadSize = static_cast<std::uint32_t>(length);
  info.hostSeconds = cms::WallSeconds();
  info.frameRate = fpsReport_.GetRecentFps();
  info.frameType = cms::kKeyFrame;
  info.videoType = CMS_VIDEO_MJPEG;
  info.sequence = ++sequence_;
  cms::BuildVideoFrameHeader(std::span<std::uint8_t, cms::kVideoHeaderRoom>(header_), info);
  OnGetVideoFrame(header_, sizeof header_, data, length, channel, cms::kKeyFrame);
}

}  // namespace tools
