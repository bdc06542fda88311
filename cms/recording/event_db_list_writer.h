// FX_EventDBListWriter: the records of the event recordings that run, one for each channel.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "cms/recording/event_db_info.h"
#include "cms/runtime/api.h"
#include "cms/runtime/critical.h"

namespace FX {

// One for each recorder and kind of event. Any thread may call any member. Storing takes the event
// databases' lock of the process and waits for the disk; nothing else does. What is still pending
// when the writer is destroyed is not stored. Channels beyond 31 are ignored.
class CMS_API FX_EventDBListWriter {
 public:
  static constexpr unsigned kChannels = 32;

  FX_EventDBListWriter();
  ~FX_EventDBListWriter();
  FX_EventDBListWriter(const FX_EventDBListWriter&) = delete;
  FX_EventDBListWriter& operator=(const FX_EventDBListWriter&) = delete;

  // Whose list the records go into, for those opened from now on (cms/recording/data_root.h).
  void SetDataRoot(const std::string& folder);

  // Opens the channel's record; one that is still pending is stored first. The site number is that
  // of the recording's name, "...\Rec_Site<number>_<stamp>.drv", 0 for other names. The record goes
  // into "..\EventList0".
  void InitialEventDBInfo(const wchar_t* drvPath, unsigned channel, unsigned type,
                          std::uint8_t preAlarm, std::uint16_t port, const wchar_t* siteName,
                          const wchar_t* address);

  // Widens the times of the channel's pending record, if any, as FX_EventDBInfo::SetRecordTime
  // does.
  void SetRecordTime(std::int64_t time, unsigned channel);

  void SetPreAlarm(std::uint8_t seconds, unsigned channel);  // of the pending record, if any

  // Appends the channel's pending record to its list if both of its times are set; without them it
  // is dropped. Nothing is pending afterwards. False when the list could not be written: it then
  // holds what it held before.
  bool WriteDBInfoIntoList(unsigned channel);

  bool IsInitial(unsigned channel) const;  // whether the channel has a pending record

 private:
  struct Pending;
  mutable CMSCritical lock_;  // taken inside the event databases' lock, never around it
  std::string dataRoot_ CMS_GUARDED_BY(lock_);
  std::array<std::unique_ptr<Pending>, kChannels> slots_ CMS_GUARDED_BY(lock_);
};

}  // namespace FX

using FX::FX_EventDBListWriter;
