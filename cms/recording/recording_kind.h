// What a site client records, and why, with every number that stands for it.
#pragma once

#include <array>
#include <optional>

namespace cms {

// As client applications say it. Of the three kinds that are events the numbers are those of the
// event list.
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

enum class RecordKind : unsigned { kDeviceEvent, kAlarm, kVideoLoss, kInstant, kSchedule };

inline constexpr std::array kRecordKinds = {RecordKind::kDeviceEvent, RecordKind::kAlarm,
                                            RecordKind::kVideoLoss, RecordKind::kInstant,
                                            RecordKind::kSchedule};
inline constexpr std::array kEventKinds = {RecordKind::kDeviceEvent, RecordKind::kAlarm,
                                           RecordKind::kVideoLoss};

// In tables with a place for each kind, or for each of the events.
constexpr unsigned IndexOf(RecordKind kind) {
  return static_cast<unsigned>(kind);
}

constexpr bool IsEvent(RecordKind kind) {
  return IndexOf(kind) < kEventKinds.size();
}

// In the state of an index record; of an event also in an event state.
constexpr unsigned BitOf(RecordKind kind) {
  return 1u << IndexOf(kind);
}
static_assert(BitOf(RecordKind::kDeviceEvent) == kEventStateDeviceEvent &&
              BitOf(RecordKind::kAlarm) == kEventStateAlarm &&
              BitOf(RecordKind::kVideoLoss) == kEventStateVideoLoss);

constexpr CMSRecordKind NumberOf(RecordKind kind) {
  constexpr std::array kNumbers = {kRecordDeviceEvent, kRecordAlarm, kRecordVideoLoss,
                                   kRecordInstant, kRecordSchedule};
  return kNumbers[IndexOf(kind)];
}

// In the event list.
constexpr unsigned EventTypeOf(RecordKind event) {
  return static_cast<unsigned>(NumberOf(event));
}

// Nothing for a number that is no CMSRecordKind.
constexpr std::optional<RecordKind> RecordKindOf(int number) {
  for (const RecordKind kind : kRecordKinds) {
    if (NumberOf(kind) == number) {
      return kind;
    }
  }
  return std::nullopt;
}

}  // namespace cms
