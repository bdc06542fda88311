// FX_RecordDBInfo, the record of one recorded file in a folder's record list.
#pragma once

#include <cstdint>
#include <string>
#include <type_traits>

#include "cms/runtime/api.h"

namespace FX {

// 736 bytes, written to disk as they lie: little-endian numbers, UTF-16LE texts that are terminated
// by a zero and zero-filled behind. Texts that are too long are cut at a whole character. Times are
// seconds since 1970-01-01 UTC, 0 while not set. A null text is an empty one. Not for concurrent
// use.
class CMS_API FX_RecordDBInfo {
 public:
  FX_RecordDBInfo() = default;
  FX_RecordDBInfo(const wchar_t* fileName, const wchar_t* address, const wchar_t* siteName,
                  std::uint16_t port, std::uint32_t siteNumber, std::uint8_t flag);

  // Everything as the constructor sets it; the times and the two nibbles become 0.
  void SetInfo(const wchar_t* fileName, const wchar_t* address, const wchar_t* siteName,
               std::uint16_t port, std::uint32_t siteNumber, std::uint8_t flag);

  // Widens the times by that of one frame: the first sets both, an earlier one moves the start, and
  // any other becomes the end, also when it is before the end: the end is the last time reported.
  // 0 and negative times are ignored.
  void SetRecordTime(std::int64_t time);

  void SetFilenameW(const wchar_t* fileName);
  void SetStartTime(std::int64_t time) { startTime_ = time; }
  void SetEndTime(std::int64_t time) { endTime_ = time; }

  void GetFileName(std::string& out) const;  // UTF-8
  std::wstring GetFilenameW() const;         // the full path of the .drv file
  std::wstring GetAddressW() const;
  std::wstring GetSiteNameW() const;
  std::uint16_t GetPort() const { return port_; }
  std::uint32_t GetSiteNumber() const { return siteNumber_; }
  std::int64_t GetStartTime() const { return startTime_; }
  std::int64_t GetEndTime() const { return endTime_; }
  // Carried and copied; nothing in the library gives them a meaning.
  std::uint8_t GetNibbles() const { return nibbles_; }
  std::uint8_t GetFlag() const { return flag_; }

 private:
  friend struct RecordDBInfoLayout;
  char16_t fileName_[260] = {};
  char16_t address_[64] = {};
  char16_t siteName_[32] = {};
  std::uint16_t port_ = 0;
  std::uint8_t nibbles_ = 0;
  std::uint8_t flag_ = 0;
  std::uint32_t siteNumber_ = 0;
  std::int64_t startTime_ = 0;
  std::int64_t endTime_ = 0;
};

static_assert(sizeof(FX_RecordDBInfo) == 736 && std::is_trivially_copyable_v<FX_RecordDBInfo> &&
              std::is_standard_layout_v<FX_RecordDBInfo>);

// The record of a file that is still being written, with the databases it will go into.
struct CMS_API stRecordDB : FX_RecordDBInfo {
  char16_t recordListPath[260] = {};
  char16_t folderSpanPath[260] = {};
  std::uint32_t pending = 0;  // 1 while the record waits to be stored

  stRecordDB() = default;
  stRecordDB(const FX_RecordDBInfo& info, const wchar_t* listPath, const wchar_t* spanPath);
  void Reset() { pending = 0; }
};

static_assert(sizeof(stRecordDB) == 1784);

}  // namespace FX

using FX::FX_RecordDBInfo;
using FX::stRecordDB;
