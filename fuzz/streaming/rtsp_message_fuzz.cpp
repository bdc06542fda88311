// RTSP messages: views stay inside the text, values carry no line ends, and what is read for the
// next request is within its bounds.
#include <string>
#include <string_view>

#include "cms/streaming/internal/rtsp_message.h"
#include "cms/streaming/internal/stream_url.h"
#include "fuzz/support/check.h"

namespace {

void CheckValue(std::string_view text, std::string_view value) {
  CHECK(value.find_first_of("\n") == std::string_view::npos);
  CHECK(value.empty() ||
        (value.data() >= text.data() && value.data() + value.size() <= text.data() + text.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const cms::RTSPMessage message(text);
  message.Status();
  CheckValue(text, message.Method());
  for (const char* name : {"CSeq", "Session", "Transport", "Public", "Content-Base"}) {
    CheckValue(text, message.Header(name));
  }
  const auto cseq = message.CSeq();
  CHECK(!cseq || *cseq >= 0);
  CHECK(message.Body().size() <= size);

  for (const std::string_view value : {message.Header("Session"), text}) {
    if (const auto session = cms::ParseSessionHeader(value)) {
      CHECK(!session->id.empty() && session->id.size() <= cms::RTSPSessionHeader::kMaxId);
      CHECK(session->id.find_first_of("\r\n ;") == std::string::npos);
      CHECK(session->timeoutSeconds >= cms::RTSPSessionHeader::kMinTimeout);
    }
  }
  for (const std::string_view value : {message.Header("Transport"), text}) {
    const auto transport = cms::ParseTransport(value);
    CHECK(!transport || !transport->interleaved || transport->interleaved->rtcp <= 255);
  }
  cms::ParsePublic(text, "GET_PARAMETER");

  std::string unfolded(text);
  cms::UnfoldHead(unfolded);
  CHECK(unfolded.size() == size);
  CHECK(cms::FindRTSPHeadEnd(unfolded) == cms::FindRTSPHeadEnd(text));
  const std::string_view head = std::string_view(unfolded).substr(0, cms::FindRTSPHeadEnd(text));
  CHECK(head.find("\n ") == std::string_view::npos && head.find("\n\t") == std::string_view::npos);
  const cms::RTSPMessage answer(unfolded);
  for (const std::string& url :
       {cms::BaseUrlOf(answer, "rtsp://camera/live"), cms::BaseUrlOf(answer, std::string())}) {
    CHECK(url.find_first_of("\r\n ") == std::string::npos);
  }
  return 0;
}
