// LocalPBSearchEngine: which days of a month have recordings, and what lies in a time interval.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cms/playback/search_results.h"
#include "cms/runtime/api.h"

// Answers from the databases of recordings in the data root, or, where there is none, beside the
// working folder (docs/formats.md): the folder
// list "..\RecFolderDB<CMS number>", the record list of each folder inside the listed ones, and the
// event list "..\EventList<CMS number>". A record counts when both of its times are set, its start
// is before its end, it touches the interval, and its .drv file is there; no recording is opened.
// Databases that are missing or cannot be read are empty ones.
//
// An engine remembers what the record lists said: asking again costs little while the lists do not
// change (24 bytes of memory for each record, and from the second search on one descriptor and an
// inotify watch for each list, where they are to be had), and files that come and go are noticed.
// Keep it for as long as there is something to ask. One thread at a time; different engines are
// independent.
// Times are seconds since 1970-01-01 UTC, both ends of an interval belong to it.
class CMS_API LocalPBSearchEngine {
 public:
  using SpanIterator = std::vector<stPBTimeInfo>::const_iterator;

  // A search over all time, the only one that removes events.
  static constexpr std::int64_t kFullRangeStart = 0;
  static constexpr std::int64_t kFullRangeEnd = 4'294'967'295;

  LocalPBSearchEngine();
  ~LocalPBSearchEngine();
  LocalPBSearchEngine(const LocalPBSearchEngine&) = delete;
  LocalPBSearchEngine& operator=(const LocalPBSearchEngine&) = delete;

  // The number of the databases, and the CMS number of the events that are shown and pruned.
  // `value2` is kept without a meaning. 0 and 0 at first.
  void setCMSInfo(unsigned cmsNumber, unsigned value2);

  // Searches are in this data root from now on (cms/recording/data_root.h): in the folders of its
  // list and in DIR/recordings; without one, or with an empty folder, in that of the process.
  void SetDataRoot(const std::string& folder);

  // Searches are for this month, in UTC, from now on: from its first second to its last.
  // A month that no calendar has holds nothing.
  void setSearchYearAndMonth(int year, int month);  // 2024, 1 to 12

  // Searches the month that was set, or else the last interval. The days are marked; `withDetails`
  // finds the stretches and the events as well.
  void searchPlaybackInfoForMonth(bool withDetails);

  // Finds the stretches of an interval. Days and events are not looked for.
  void searchByInterval(std::int64_t start, std::int64_t end);

  // Finds the events of the last search that found stretches: those of the engine's CMS number that
  // a stretch of their site shows. After a search over all time (kFullRangeStart, kFullRangeEnd)
  // the others of that CMS number are removed from the event list, unless something could not be
  // read; no other search removes any. A process that is killed meanwhile leaves the list as it
  // was, and recorders of any process go on appending to it.
  void loadEventList();

  // 1 for each day of the month, from 1 to 31, on which a recording starts; one that runs past
  // midnight marks the day of its start alone.
  const std::array<int, 32>& getMonthInfo() const;
  int getCurrentYear() const;   // the month searched, as it was set
  int getCurrentMonth() const;  // 1 to 12

  // The stretches, site after site. Valid until the next search.
  void getSearchResultByInterval(SpanIterator& first, SpanIterator& last) const;
  const std::vector<stPBTimeInfo>& getNormalPBInfo() const;
  const std::vector<stLocalEvent>& getEventTimes() const;  // by their start

  // How an event relates to the stretches: 1, one of its site overlaps it: its times are clipped to
  // the first such, its start moved forward by `preAlarm` seconds before; 0, none does and the
  // search was over all time; 2, none does otherwise, or there was no search for stretches yet.
  int validateEventWithDB(stLocalEvent& event, unsigned preAlarm) const;

  // False when the last search met a list or a folder that is there and could not be read: there
  // may be more than it found.
  bool hasReadEverything() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};
