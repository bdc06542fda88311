#include "cms/streaming/internal/multipart_reader.h"

#include <algorithm>
#include <charconv>

#include "cms/streaming/internal/rtsp_message.h"

namespace cms {
namespace {

constexpr std::size_t kLongestHead = 64 * 1024;
constexpr std::string_view kHeadEnd = "\r\n\r\n";

std::string_view TextOf(CRawBuffer& buffer) {
  return {reinterpret_cast<const char*>(buffer.Data()), static_cast<std::size_t>(buffer.Length())};
}

}  // namespace

MultipartReader::Step MultipartReader::Next(CRawBuffer& buffer) {
  switch (expect_) {
    case Expect::kHead:
      return ReadHead(buffer);
    case Expect::kPartHead:
      return ReadPartHead(buffer);
    case Expect::kBody:
      return FindPart(TextOf(buffer));
    case Expect::kNothing:
      buffer.Clear();
      break;
  }
  return Step::kWait;
}

MultipartReader::Step MultipartReader::ReadHead(CRawBuffer& buffer) {
  const std::string_view text = TextOf(buffer);
  const std::size_t end = text.find(kHeadEnd);
  if (end == std::string_view::npos && text.size() < kLongestHead) {
    return Step::kWait;
  }
  head_ = text.substr(0, std::min(end, kLongestHead));
  head_ += "\r\n";
  const RTSPMessage answer(head_);  // HTTP's are of the same form
  const std::string_view type = answer.Header("Content-Type");
  const std::size_t at = type.find("boundary=");
  status_ = static_cast<int>(answer.Status());
  if (status_ < 100 || (status_ == 200 && at == std::string_view::npos)) {
    status_ = 502;
  }
  if (status_ == 200) {
    boundary_ = type.substr(at + 9);
    boundary_.erase(0, boundary_.find_first_not_of('"'));
    boundary_ = boundary_.substr(0, boundary_.find_first_of("\"; "));
    // Some cameras announce the boundary with the dashes that belong in front of it.
    boundary_ = boundary_.starts_with("--") ? boundary_ : "--" + boundary_;
    buffer.Erase(0, static_cast<long>(end + kHeadEnd.size()));
  }
  expect_ = status_ == 200 ? Expect::kPartHead : Expect::kNothing;
  return Step::kHead;
}

MultipartReader::Step MultipartReader::ReadPartHead(CRawBuffer& buffer) {
  const std::string_view text = TextOf(buffer);
  const std::size_t start = text.find(boundary_);
  const std::size_t end = start == std::string_view::npos ? start : text.find(kHeadEnd, start);
  if (end == std::string_view::npos) {
    return Step::kWait;  // the raw buffer's own limit bounds what is waited for
  }
  const std::string_view length =
      RTSPMessage(text.substr(start, end - start + 2)).Header("Content-Length");
  bodyLength_ = -1;
  std::from_chars(length.data(), length.data() + length.size(), bodyLength_);
  searched_ = 0;
  buffer.Erase(0, static_cast<long>(end + kHeadEnd.size()));
  expect_ = Expect::kBody;
  return Step::kOther;
}

MultipartReader::Step MultipartReader::FindPart(std::string_view text) {
  const auto size = static_cast<long>(text.size());
  if (bodyLength_ > largestPart_) {
    expect_ = Expect::kPartHead;
    return Step::kOther;
  }
  if (bodyLength_ > 0) {
    if (size < bodyLength_) {
      return Step::kWait;
    }
    partLength_ = static_cast<int>(bodyLength_);
  } else {
    const std::size_t end = text.find("\r\n" + boundary_, static_cast<std::size_t>(searched_));
    if (end == std::string_view::npos) {
      searched_ = std::max(0L, size - static_cast<long>(boundary_.size()) - 1);
      return Step::kWait;
    }
    partLength_ = static_cast<int>(end);
  }
  expect_ = Expect::kPartHead;
  return partLength_ > 0 ? Step::kPart : Step::kOther;
}

}  // namespace cms
