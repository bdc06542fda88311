// Any bytes as a compound RTCP packet: what is read of a sender report lies in it and is a time.
#include "cms/streaming/internal/sender_report.h"
#include "fuzz/support/check.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto report = cms::ReadSenderReport({data, size});
  if (report) {
    CHECK(size >= 28 && report->ntp != 0);
    constexpr std::int64_t kNow = 1'790'000'000;
    constexpr std::int64_t kHalfRound = std::int64_t{1} << 31;
    const std::int64_t us = cms::MicrosecondsOfNtp(report->ntp, kNow);
    CHECK(us >= (kNow - kHalfRound) * 1'000'000 && us < (kNow + kHalfRound) * 1'000'000);
  }
  return 0;
}
