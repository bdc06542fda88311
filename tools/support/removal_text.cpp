#include "tools/support/removal_text.h"

#include <cstdio>
#include <cstring>

#include "tools/support/byte_text.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

using Json = nlohmann::ordered_json;

const char* ReasonOf(cms::RemovalReason reason) {
  switch (reason) {
    case cms::RemovalReason::kDays:
      return "days";
    case cms::RemovalReason::kBytes:
      return "bytes";
    case cms::RemovalReason::kSiteBytes:
      return "bytes of its site";
    case cms::RemovalReason::kFreeSpace:
      return "free space";
    default:
      return "asked";
  }
}

std::string WhyOf(const cms::StayingRecording& staying) {
  switch (staying.why) {
    case cms::StayReason::kProtected:
      return "protected";
    case cms::StayReason::kRunning:
      return "in use: it is being recorded, moved or repaired";
    default:
      return std::strerror(staying.error);
  }
}

Json RecordingJson(const cms::RemovedRecording& recording) {
  return {{"file", recording.file},
          {"site", recording.site},
          {"start", UtcTime(recording.start)},
          {"end", UtcTime(recording.end)},
          {"bytes", recording.bytes},
          {"reason", ReasonOf(recording.reason)}};
}

}  // namespace

Json RemovalJson(const cms::RemovalReport& report) {
  Json removed = Json::array();
  Json staying = Json::array();
  for (const cms::RemovedRecording& recording : report.removed) {
    removed.push_back(RecordingJson(recording));
  }
  for (const cms::StayingRecording& each : report.staying) {
    Json recording = RecordingJson(each.recording);
    recording["why"] = WhyOf(each);
    staying.push_back(std::move(recording));
  }
  return {{"removed", std::move(removed)}, {"removed_bytes", report.removedBytes},
          {"staying", std::move(staying)}, {"lost_records", report.lostRecords},
          {"events", report.events},       {"folders", report.folders},
          {"errors", report.errors}};
}

void PrintRemoval(const cms::RemovalReport& report, bool would) {
  for (const cms::RemovedRecording& recording : report.removed) {
    std::printf("%s %s, site %u from %s (%s)\n", would ? "would remove" : "removed",
                recording.file.c_str(), recording.site, LocalTime(recording.start).c_str(),
                ReasonOf(recording.reason));
  }
  for (const cms::StayingRecording& staying : report.staying) {
    std::printf("stays: %s (%s)\n", staying.recording.file.c_str(), WhyOf(staying).c_str());
  }
  std::printf(
      "%zu recordings of %s %s, %zu stay; %llu events, %llu records of files that were "
      "gone, %llu empty folders removed.\n",
      report.removed.size(), TextOfBytes(report.removedBytes).c_str(),
      would ? "would be removed" : "removed", report.staying.size(),
      static_cast<unsigned long long>(report.events),
      static_cast<unsigned long long>(report.lostRecords),
      static_cast<unsigned long long>(report.folders));
}

void PrintRemovalErrors(const char* command, const cms::RemovalReport& report) {
  for (const std::string& error : report.errors) {
    std::fprintf(stderr, "orvanta %s: %s\n", command, error.c_str());
  }
}

}  // namespace tools
