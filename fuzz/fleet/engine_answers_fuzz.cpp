// What the engine answers: every reader takes any text, a key that is told has a name that is
// bytes, and a view that was given any key and value writes values that it reads again.
#include <string>
#include <string_view>

#include "fleet/engine_answers.h"
#include "fleet/fleet_view.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace cms::fleet;
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  static_cast<void>(ReadTransactionAnswer(text));
  static_cast<void>(ReadHeaderAnswer(text));
  static_cast<void>(ReadLoginAnswer(text));
  static_cast<void>(ReadRefusal(text));
  static_cast<void>(ReadLeads(text));
  if (const auto lease = ReadGrantAnswer(text)) {
    CHECK(lease->lease != 0 && lease->ttl > 0);
  }
  if (const auto lease = ReadRenewalAnswer(text)) {
    CHECK(lease->ttl >= 0);
  }
  FleetView view;
  if (const auto range = ReadRangeAnswer(text)) {
    for (const EngineKey& key : range->keys) {
      view.Put(key);
    }
  }
  if (const auto watch = ReadWatchLine(text)) {
    for (const EngineEvent& event : watch->events) {
      view.Put(event.key);
      if (event.deleted) {
        view.Remove(event.key.key);
      }
    }
  }
  const std::size_t line = text.find('\n');
  if (line != std::string_view::npos) {
    view.Put({std::string(text.substr(0, line)), std::string(text.substr(line + 1)), 1, 1, 0});
  }
  for (const auto& [name, camera] : view.cameras) {
    CHECK(IsFleetName(name) && camera.copies <= kMostCopies);
    CHECK(ReadCamera(ValueOf(camera)).has_value());
  }
  for (const CameraCopy& copy : view.Copies()) {
    static_cast<void>(view.IsProven(copy));
  }
  return 0;
}
