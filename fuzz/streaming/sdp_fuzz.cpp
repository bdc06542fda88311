// Session descriptions: no read outside the text, texts always terminated, no white space in
// values, and parameter sets that are what their types say.
#include <cstring>
#include <string_view>

#include "cms/streaming/internal/parameter_sets.h"
#include "cms/streaming/internal/talk_back.h"
#include "cms/streaming/media_session.h"
#include "fuzz/support/check.h"

namespace {

void CheckStream(const _RTSPSUBSESSION_CONFIG& stream) {
  CHECK(stream.payloadType <= 127 || stream.payloadType == cms::kNoPayloadType);
  CHECK(stream.control[cms::kMaxSDPControl] == '\0');
  CHECK(stream.encodingName[cms::kMaxSDPEncodingName] == '\0');
  CHECK(stream.parameterSets[cms::kMaxSDPParameterSets] == '\0');
  CHECK(std::strpbrk(stream.control, " \t\r\n") == nullptr);
  CHECK(std::strpbrk(stream.parameterSets, " \t\r\n;") == nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  MediaSession session;
  _RTSPSUBSESSION_CONFIG video;
  _RTSPSUBSESSION_CONFIG audio;
  const int found = session.ParseDescription(text, video, audio);
  CHECK(found == (video.payloadType != cms::kNoPayloadType ? 1 : 0));
  CheckStream(video);
  CheckStream(audio);
  CHECK(session.FrameRate() >= 0 && session.FrameRate() <= 1000);

  for (const std::string_view list : {std::string_view(video.parameterSets), text}) {
    const cms::ParameterSets sets = cms::DecodeParameterSets(list);
    CHECK(sets.sps.empty() || (sets.sps.size() >= 2 && (sets.sps[0] & 0x1f) == 7));
    CHECK(sets.pps.empty() || (sets.pps.size() >= 2 && (sets.pps[0] & 0x1f) == 8));
  }
  const cms::TalkBackDescription split = cms::SplitTalkBack(text);
  CHECK(split.viewing.size() <= text.size());
  CheckStream(split.talk);
  return 0;
}
