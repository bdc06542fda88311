// What pull points answer: every reader takes any text, texts that are shown hold no control
// character, headers of a reference can stand in a request, and a state that is told twice is news
// once.
#include <string>
#include <string_view>

#include "cms/ipcam/internal/event_messages.h"
#include "cms/ipcam/internal/event_states.h"
#include "cms/ipcam/internal/onvif_device.h"
#include "cms/ipcam/internal/tag_search.h"
#include "cms/runtime/wide_text.h"
#include "fuzz/support/check.h"

namespace {

void CheckShown(const std::string& text) {
  for (const char c : text) {
    CHECK(static_cast<unsigned char>(c) >= ' ' && c != '\x7f');
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::wstring text =
      cms::Normalized(cms::WideFromUtf8({reinterpret_cast<const char*>(data), size}));
  static_cast<void>(cms::ParsePullLimits(text));
  static_cast<void>(cms::LifetimeOf(text));
  static_cast<void>(cms::DateTimeMs(text));
  static_cast<void>(cms::DurationSeconds(text));
  if (const auto point = cms::ParsePullPoint(text)) {
    CHECK(!point->address.empty() && point->lifetimeSeconds >= 0);
    const std::wstring request = cms::AddressingHeaders(L"a", point->address, point->reference);
    CHECK(request.find(point->reference) != std::wstring::npos);
  }
  cms::OnvifAccess access;
  access.host = "192.0.2.1";
  cms::OnvifDevice device(access);
  cms::SoapReply reply;
  reply.text = text;
  if (device.TakeServices(reply)) {
    const std::string url = device.UrlOf(device.ServiceAddress(cms::kEventsWsdl));
    CHECK(url.starts_with("http://192.0.2.1"));
  }
  const auto events = cms::ParsePulledEvents(text, 1);
  if (!events) {
    return 0;
  }
  cms::EventStates states;
  for (cms::PulledEvent pulled : *events) {
    CheckShown(pulled.event.topic);
    for (const auto* items : {&pulled.event.source, &pulled.event.key, &pulled.event.data}) {
      for (const cms::CameraEventItem& item : *items) {
        CheckShown(item.name);
        CheckShown(item.value);
      }
    }
    states.Note(pulled);
    const bool state = pulled.event.state != cms::CameraEventState::kNone;
    CHECK(!state || pulled.operation == cms::PropertyOperation::kDeleted || !states.Note(pulled));
  }
  return 0;
}
