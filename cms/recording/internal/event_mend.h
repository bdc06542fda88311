// Rows of the event list for the events that ran when their process was killed.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cms/recording/database_reader.h"
#include "cms/recording/event_db_info.h"
#include "cms/recording/internal/database_follower.h"
#include "cms/runtime/file_io.h"

namespace cms {

// An event's row is stored when it ends. What a recording's index says of its frames, which kinds
// of recording ran and which marks there were, tells the event again; frames at the end whose index
// was lost belong to what ran in front of them.
class EventMend {
 public:
  EventMend(FileIo& io, std::string dataRoot);
  ~EventMend();

  // Adds what no row of the list has of a recording's events. `indexes`: of the site's recordings
  // in one folder, native, in their order; the last one's is the recording's, those before it tell
  // where an event began; those of the call before are not read again. `site` names it. False when
  // the list cannot be written (errno).
  bool Mend(const std::vector<std::string>& indexes, const RecordRow& site);

  unsigned Added() const { return added_; }

 private:
  struct Run;
  class Runs;
  struct Known {
    unsigned channel = 0;
    unsigned type = 0;
    std::int64_t start = 0;
    std::int64_t end = 0;
  };
  std::int64_t Take(const std::string& index);
  void ReadList();
  bool Add(const Run& run, const RecordRow& site);

  FileIo& io_;
  const std::string dataRoot_;
  DatabaseFollower<FX::FX_EventDBInfo> list_;
  std::map<std::uint32_t, std::vector<Known>> known_;  // the list's, by site
  std::unique_ptr<Runs> runs_;                         // up to lastIndex_
  std::string lastIndex_;
  unsigned added_ = 0;
};

}  // namespace cms
