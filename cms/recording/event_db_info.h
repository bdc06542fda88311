// FX_EventDBInfo, the record of one finished event recording in the event list.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "cms/runtime/api.h"

namespace FX {

// 232 bytes, written to disk as they lie: little-endian numbers, UTF-16LE texts that are terminated
// by a zero and zero-filled behind. Texts that are too long are cut at a whole character. Times are
// seconds since 1970-01-01 UTC, 0 while not set. CMS number, group number and type keep the low
// four bits of what is given. A null text is an empty one. Not for concurrent use.
class CMS_API FX_EventDBInfo {
 public:
  FX_EventDBInfo() = default;
  FX_EventDBInfo(unsigned cmsNumber, unsigned groupNumber, std::uint32_t siteNumber,
                 std::uint16_t channel, unsigned type, std::uint8_t preAlarm, std::uint16_t port,
                 const wchar_t* siteName, const wchar_t* address);

  // Widens the times by that of one frame: the first sets both, an earlier one moves the start, and
  // any other becomes the end, also when it is before the end. Times of 100 or less are no frame's
  // times and are ignored.
  void SetRecordTime(std::int64_t time);

  void SetSiteNameW(const wchar_t* siteName);
  void SetAddressW(const wchar_t* address);
  void SetPort(std::uint16_t port) { port_ = port; }
  void SetCMSNumber(unsigned number);
  void SetGroupNumber(unsigned number);
  void SetChNumber(std::uint16_t channel) { channel_ = channel; }
  void SetType(unsigned type);
  void SetIndex(std::uint16_t index) { index_ = index; }
  void SetPreAlarm(std::uint8_t preAlarm) { preAlarm_ = preAlarm; }
  void SetSiteNumber(std::uint32_t number) { siteNumber_ = number; }
  void SetStartTime(std::int64_t time) { startTime_ = time; }
  void SetEndTime(std::int64_t time) { endTime_ = time; }

  std::wstring GetSiteNameW() const;
  std::wstring GetAddressW() const;
  std::uint16_t GetPort() const { return port_; }
  unsigned GetCMSNumber() const { return numbers_ & 0xFu; }
  unsigned GetGroupNumber() const { return numbers_ >> 4u; }
  std::uint16_t GetChNumber() const { return channel_; }
  unsigned GetType() const { return type_ & 0xFu; }  // an event of CMSRecordKind
  std::uint16_t GetIndex() const { return index_; }
  std::uint8_t GetPreAlarm() const { return preAlarm_; }  // seconds
  std::uint32_t GetSiteNumber() const { return siteNumber_; }
  std::int64_t GetStartTime() const { return startTime_; }
  std::int64_t GetEndTime() const { return endTime_; }

 private:
  friend struct EventDBInfoLayout;
  char16_t siteName_[32] = {};
  char16_t address_[64] = {};
  std::uint16_t port_ = 0;
  std::uint8_t numbers_ = 0;  // low nibble: CMS number, high nibble: group number
  [[maybe_unused]] std::uint8_t reserved195_ = 0;
  std::uint16_t channel_ = 0;
  std::uint8_t type_ = 0;  // low nibble; the high one is reserved
  [[maybe_unused]] std::uint8_t reserved199_ = 0;
  std::uint16_t index_ = 0;
  std::uint8_t preAlarm_ = 0;
  [[maybe_unused]] std::uint8_t reserved203_[5] = {};
  std::uint32_t siteNumber_ = 0;
  [[maybe_unused]] std::uint32_t reserved212_ = 0;
  std::int64_t startTime_ = 0;
  std::int64_t endTime_ = 0;
};

static_assert(sizeof(FX_EventDBInfo) == 232 && std::is_trivially_copyable_v<FX_EventDBInfo> &&
              std::is_standard_layout_v<FX_EventDBInfo>);

}  // namespace FX

using FX::FX_EventDBInfo;
