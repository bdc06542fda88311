// What a site client records, and why.
#pragma once

// Of the three kinds that are events the numbers are those of the event list.
enum CMSRecordKind : int {
  kRecordDeviceEvent = 1,
  kRecordAlarm = 3,
  kRecordVideoLoss = 4,
  kRecordInstant = 5,   // by hand
  kRecordSchedule = 6,  // by a plan
};

// The event state of a channel, as bits.
enum CMSEventState : unsigned {
  kEventStateDeviceEvent = 1u << 0,
  kEventStateAlarm = 1u << 1,
  kEventStateVideoLoss = 1u << 2,
};
