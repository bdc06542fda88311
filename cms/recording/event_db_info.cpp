#include "cms/recording/event_db_info.h"

#include <bit>
#include <cstddef>

#include "cms/recording/internal/record_text.h"
#include "cms/runtime/wide_text.h"

static_assert(std::endian::native == std::endian::little, "records are written as they lie");

namespace FX {

namespace {
constexpr std::int64_t kLatestImpossibleTime = 100;
}

struct EventDBInfoLayout {
  static_assert(
      offsetof(FX_EventDBInfo, siteName_) == 0 && offsetof(FX_EventDBInfo, address_) == 64 &&
      offsetof(FX_EventDBInfo, port_) == 192 && offsetof(FX_EventDBInfo, numbers_) == 194 &&
      offsetof(FX_EventDBInfo, reserved195_) == 195 && offsetof(FX_EventDBInfo, channel_) == 196 &&
      offsetof(FX_EventDBInfo, type_) == 198 && offsetof(FX_EventDBInfo, reserved199_) == 199 &&
      offsetof(FX_EventDBInfo, index_) == 200 && offsetof(FX_EventDBInfo, preAlarm_) == 202 &&
      offsetof(FX_EventDBInfo, reserved203_) == 203 &&
      offsetof(FX_EventDBInfo, siteNumber_) == 208 &&
      offsetof(FX_EventDBInfo, reserved212_) == 212 &&
      offsetof(FX_EventDBInfo, startTime_) == 216 && offsetof(FX_EventDBInfo, endTime_) == 224);
};

FX_EventDBInfo::FX_EventDBInfo(unsigned cmsNumber, unsigned groupNumber, std::uint32_t siteNumber,
                               std::uint16_t channel, unsigned type, std::uint8_t preAlarm,
                               std::uint16_t port, const wchar_t* siteName, const wchar_t* address)
    : port_(port), channel_(channel), preAlarm_(preAlarm), siteNumber_(siteNumber) {
  SetCMSNumber(cmsNumber);
  SetGroupNumber(groupNumber);
  SetType(type);
  SetSiteNameW(siteName);
  SetAddressW(address);
}

void FX_EventDBInfo::SetRecordTime(std::int64_t time) {
  if (time > kLatestImpossibleTime) {
    cms::WidenRecordTimes(time, startTime_, endTime_);
  }
}

void FX_EventDBInfo::SetSiteNameW(const wchar_t* siteName) {
  cms::StoreUtf16(cms::TextOf(siteName), siteName_);
}

void FX_EventDBInfo::SetAddressW(const wchar_t* address) {
  cms::StoreUtf16(cms::TextOf(address), address_);
}

void FX_EventDBInfo::SetCMSNumber(unsigned number) {
  numbers_ = static_cast<std::uint8_t>((numbers_ & 0xF0u) | (number & 0xFu));
}

void FX_EventDBInfo::SetGroupNumber(unsigned number) {
  numbers_ = static_cast<std::uint8_t>((numbers_ & 0xFu) | (number & 0xFu) << 4u);
}

void FX_EventDBInfo::SetType(unsigned type) {
  type_ = static_cast<std::uint8_t>((type_ & 0xF0u) | (type & 0xFu));
}

std::wstring FX_EventDBInfo::GetSiteNameW() const {
  return cms::LoadUtf16(siteName_);
}

std::wstring FX_EventDBInfo::GetAddressW() const {
  return cms::LoadUtf16(address_);
}

}  // namespace FX
