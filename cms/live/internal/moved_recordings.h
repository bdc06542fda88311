// A site's finished recordings on their way to network storage, with their places in the databases.
#pragma once

#include <deque>
#include <string>
#include <utility>

#include "cms/recording/drv_writer.h"
#include "cms/recording/move_file_client.h"

namespace cms {

// "<folder>\20240229\Rec_Site1_x.drv" goes to "<target>\20240229\Rec_Site1_x.drv": the index first,
// then the recording, each pair behind the one before it. Once it has arrived its record goes over
// from the record list of the old folder to that of the new one, and the target is in the folder
// list, so that a search finds it there. The target itself is never made: a target that is away
// keeps the files waiting where they are. Not for concurrent use.
class MovedRecordings {
 public:
  explicit MovedRecordings(std::wstring target) : target_(std::move(target)) {}

  bool Start() { return mover_.StartMove(); }
  void Add(const FinishedRecording& file);
  void Look();  // about once a second: makes folders, and moves the records of what has arrived
  // Each file that waits is tried once more; the others stay where they are.
  void Stop();

 private:
  struct Move {
    std::wstring from;
    std::wstring to;
  };
  bool TakeOver(const Move& move) const;

  const std::wstring target_;
  CLFX_MOVEFILE_Client mover_;
  std::deque<FinishedRecording> held_;  // until their folder can be made
  std::deque<Move> moving_;
  bool listed_ = false;  // the target is in the folder list
};

}  // namespace cms
