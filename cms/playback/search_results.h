// What a search of local recordings finds: stretches of playback, and events.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cms/recording/record_db_info.h"

// A stretch of one site that plays without a break of more than a second. Times are seconds since
// 1970-01-01 UTC.
struct stPBTimeInfo {
  std::uint32_t siteNumber = 0;
  std::int64_t start = 0;
  std::int64_t end = 0;  // of the last record, also when an earlier one went on for longer
  // The files in the order of play. One that is overlapped by the next ends a second before it; one
  // that would have nothing left is not here. Never empty.
  std::vector<FX_RecordDBInfo> records;
};

// An event, its times clipped to the stretch that shows it.
struct stLocalEvent {
  enum Kind { kAlarm = 0, kDeviceEvent = 1, kVideoLoss = 2 };

  std::uint32_t siteNumber = 0;
  int kind = kDeviceEvent;
  unsigned channel = 0;  // from 1
  unsigned cmsNumber = 0;
  unsigned groupNumber = 0;
  std::int64_t start = 0;  // the pre-alarm included
  std::int64_t end = 0;
  std::string siteName;  // UTF-8
  std::string address;   // "
};
