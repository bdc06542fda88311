// The catalogue of the engine: any bytes are read, and what was read
// is written as it was.
#include <string>
#include <string_view>

#include "fleet/day_record.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace cms::fleet;
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (const auto record = DecodeDay(text)) {
    CHECK(DecodeDay(EncodeDay(*record)) == record);
  }
  if (const auto parts = ReadDayKey(kDaysPrefix + text)) {
    CHECK(DayKey(parts->day, parts->recorder) == kDaysPrefix + text);
  }
  return 0;
}
