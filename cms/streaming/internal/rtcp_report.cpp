#include "cms/streaming/internal/rtcp_report.h"

#include <algorithm>
#include <string_view>

namespace cms {
namespace {

constexpr std::string_view kCanonicalName = "OrvantaCMS";

constexpr std::size_t kBlock = 8;
constexpr std::size_t kSDES = 32;

}  // namespace

std::array<std::uint8_t, kReceiverReportSize> BuildReceiverReport(
    const ReceiverReportValues& values) {
  std::array<std::uint8_t, kReceiverReportSize> report{};
  const auto put = [&report](std::size_t at, std::uint32_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) {
      report[at + i] = static_cast<std::uint8_t>(value >> (8 * (bytes - 1 - i)));
    }
  };
  constexpr std::uint32_t kVersionAndCount = 0x81;
  put(0, kVersionAndCount, 1);
  put(1, 201, 1);  // RR
  put(2, 7, 2);
  put(4, values.receiverSsrc, 4);
  std::copy(values.senderSsrc.begin(), values.senderSsrc.end(), report.begin() + kBlock);
  put(kBlock + 4, values.fractionLost, 1);
  constexpr std::uint32_t kMostLost = 0x7FFFFF;  // the field is signed
  put(kBlock + 5,
      values.todaysCameras ? std::min(values.cumulativeLost, kMostLost)
                           : values.cumulativeLost >> 8,
      3);
  put(kBlock + 8, values.lastSequence, 4);
  put(kSDES, kVersionAndCount, 1);
  put(kSDES + 1, 202, 1);  // SDES
  put(kSDES + 2, 5, 2);
  if (values.todaysCameras) {
    put(kSDES + 4, values.receiverSsrc, 4);
  } else {
    std::copy(values.senderSsrc.begin(), values.senderSsrc.end(), report.begin() + kSDES + 4);
  }
  put(kSDES + 8, 1, 1);  // CNAME
  put(kSDES + 9, kCanonicalName.size(), 1);
  std::copy(kCanonicalName.begin(), kCanonicalName.end(), report.begin() + kSDES + 10);
  return report;
}

}  // namespace cms
