// FX_RecordDBListWriter: the record of the file being written, from its first frame into the list.
#pragma once

#include <cstdint>
#include <string>

#include "cms/recording/record_db_info.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

namespace FX {

// One for each recorder. Any thread may call any member. Storing takes the record databases' lock
// of the process and waits for the disk; nothing else does. What is still pending when the writer
// is destroyed is not stored.
class CMS_API FX_RecordDBListWriter {
 public:
  FX_RecordDBListWriter() = default;
  FX_RecordDBListWriter(const FX_RecordDBListWriter&) = delete;
  FX_RecordDBListWriter& operator=(const FX_RecordDBListWriter&) = delete;

  // Where relative paths of folders count from, from now on (cms/recording/data_root.h).
  void SetDataRoot(const std::string& folder);

  // The recording folder of the records to come, without a separator behind it. Paths have at most
  // 259 characters; records of a folder whose databases' paths would have more are not stored.
  void SetDBListPath(const wchar_t* folder);

  // Starts the record of a new file of that folder; one that is still pending is stored first. The
  // site number is that of the name "Rec_Site<number>_<stamp>.drv", 0 for other names.
  void InitialRecordDBInfo(const wchar_t* drvFileName, const wchar_t* address,
                           const wchar_t* siteName, std::uint16_t port);

  // Widens the pending record's times as FX_RecordDBInfo::SetRecordTime does.
  void SetRecordTime(std::int64_t time);

  // Appends the pending record to its record list and widens its folder's span; each is done even
  // if the other fails, and nothing is pending afterwards. False when something could not be
  // written: the databases then hold what they held before. True when nothing was pending.
  bool WriteDBInfoIntoList();

 private:
  CMSCritical lock_;  // taken inside the record databases' lock, never around it
  std::string dataRoot_ CMS_GUARDED_BY(lock_);
  stRecordDB record_ CMS_GUARDED_BY(lock_);
  char16_t listPath_[260] CMS_GUARDED_BY(lock_) = {};
  char16_t spanPath_[260] CMS_GUARDED_BY(lock_) = {};
  char16_t folder_[260] CMS_GUARDED_BY(lock_) = {};
};

}  // namespace FX

using FX::FX_RecordDBListWriter;
