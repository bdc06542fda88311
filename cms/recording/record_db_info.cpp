#include "cms/recording/record_db_info.h"

#include <bit>
#include <cstddef>

#include "cms/recording/internal/record_text.h"
#include "cms/runtime/wide_text.h"

static_assert(std::endian::native == std::endian::little, "records are written as they lie");

namespace FX {

struct RecordDBInfoLayout {
  static_assert(
      offsetof(FX_RecordDBInfo, fileName_) == 0 && offsetof(FX_RecordDBInfo, address_) == 520 &&
      offsetof(FX_RecordDBInfo, siteName_) == 648 && offsetof(FX_RecordDBInfo, port_) == 712 &&
      offsetof(FX_RecordDBInfo, nibbles_) == 714 && offsetof(FX_RecordDBInfo, flag_) == 715 &&
      offsetof(FX_RecordDBInfo, siteNumber_) == 716 &&
      offsetof(FX_RecordDBInfo, startTime_) == 720 && offsetof(FX_RecordDBInfo, endTime_) == 728);
};

// Offsets behind a base class are defined by the platform's ABI, which is what the layout relies
// on.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winvalid-offsetof"
static_assert(offsetof(stRecordDB, recordListPath) == 736 &&
              offsetof(stRecordDB, folderSpanPath) == 1256 &&
              offsetof(stRecordDB, pending) == 1776);
#pragma GCC diagnostic pop

FX_RecordDBInfo::FX_RecordDBInfo(const wchar_t* fileName, const wchar_t* address,
                                 const wchar_t* siteName, std::uint16_t port,
                                 std::uint32_t siteNumber, std::uint8_t flag) {
  SetInfo(fileName, address, siteName, port, siteNumber, flag);
}

void FX_RecordDBInfo::SetInfo(const wchar_t* fileName, const wchar_t* address,
                              const wchar_t* siteName, std::uint16_t port, std::uint32_t siteNumber,
                              std::uint8_t flag) {
  cms::StoreUtf16(cms::TextOf(fileName), fileName_);
  cms::StoreUtf16(cms::TextOf(address), address_);
  cms::StoreUtf16(cms::TextOf(siteName), siteName_);
  port_ = port;
  nibbles_ = 0;
  flag_ = flag;
  siteNumber_ = siteNumber;
  startTime_ = 0;
  endTime_ = 0;
}

void FX_RecordDBInfo::SetRecordTime(std::int64_t time) {
  if (time > 0) {
    cms::WidenRecordTimes(time, startTime_, endTime_);
  }
}

void FX_RecordDBInfo::SetFilenameW(const wchar_t* fileName) {
  cms::StoreUtf16(cms::TextOf(fileName), fileName_);
}

void FX_RecordDBInfo::GetFileName(std::string& out) const {
  out = cms::Utf8FromWide(GetFilenameW());
}

std::wstring FX_RecordDBInfo::GetFilenameW() const {
  return cms::LoadUtf16(fileName_);
}

std::wstring FX_RecordDBInfo::GetAddressW() const {
  return cms::LoadUtf16(address_);
}

std::wstring FX_RecordDBInfo::GetSiteNameW() const {
  return cms::LoadUtf16(siteName_);
}

stRecordDB::stRecordDB(const FX_RecordDBInfo& info, const wchar_t* listPath,
                       const wchar_t* spanPath)
    : FX_RecordDBInfo(info), pending(1) {
  cms::StoreUtf16(cms::TextOf(listPath), recordListPath);
  cms::StoreUtf16(cms::TextOf(spanPath), folderSpanPath);
}

}  // namespace FX
