// What of which camera lies on the disks of several recorders, by the indexes of their recordings.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace tools {

// Milliseconds since 1970.
struct RecordedSpan {
  std::int64_t from = 0;
  std::int64_t to = 0;
};

struct RecordedTimes {
  // By site and recorder, in the order of time; frames further apart than kApart begin another
  // span.
  std::map<unsigned, std::map<std::string, std::vector<RecordedSpan>>> spans;

  static constexpr std::int64_t kApart = 1'000;

  // The longest time within the window in which no recorder has a frame of the site.
  std::int64_t LongestGap(unsigned site, RecordedSpan window) const;
  // How long, within the window, more than one recorder recorded it.
  std::int64_t RecordedTwice(unsigned site, RecordedSpan window) const;
};

// Of the folders of data by the recorders' names. Indexes that cannot be read are left out.
RecordedTimes ReadRecordedTimes(const std::map<std::string, std::string>& folders);

// A line for each camera and recorder: '#' where it recorded.
std::string Timeline(const RecordedTimes& times, const std::map<unsigned, std::string>& cameras,
                     RecordedSpan window, std::size_t columns);

}  // namespace tools
