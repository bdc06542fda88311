// A site's finished recordings on their way to network storage, with their places in the databases.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "cms/recording/database_reader.h"
#include "cms/recording/drv_writer.h"
#include "cms/recording/move_file_client.h"
#include "cms/runtime/critical.h"
#include "cms/runtime/internal/turns.h"

namespace cms {

// "<folder>\20240229\Rec_Site1_x.drv" goes to "<target>\20240229\Rec_Site1_x.drv": the index first,
// then the recording, each pair behind the one before it. Once it has arrived its record goes over
// from the record list of the old folder to that of the new one, and the target is in the folder
// list, so that a search finds it there. The target itself is never made: a target that is away
// keeps the files waiting where they are. What an earlier run left goes first: the listed
// recordings of the site's name that nobody holds, in its folder or, when that is a day's
// ("20240229"), in those of all days beside it. Only the threads of Turns::Moves and of
// the mover wait for the storage, and who calls Stop.
class MovedRecordings final : public Turns::Member {
 public:
  // `front` is that of the recordings' paths, "..\recordings\20240229\Rec_Site1_"; both are located
  // in the data root (empty: that of the process).
  MovedRecordings(std::wstring target, std::wstring front, std::string dataRoot)
      : target_(std::move(target)), front_(std::move(front)), dataRoot_(std::move(dataRoot)) {}
  ~MovedRecordings() { Turns::Moves().Remove(this); }
  MovedRecordings(const MovedRecordings&) = delete;
  MovedRecordings& operator=(const MovedRecordings&) = delete;

  bool Start();
  void Add(const FinishedRecording& file);  // any thread
  // Goes on for so long, by the host's clock, while files arrive; what could not be moved then
  // stays where it is for the next run.
  void Stop(int milliseconds);

  std::uint64_t Turn(std::uint64_t now) override;

 private:
  struct Move {
    std::wstring from;
    std::wstring to;
    std::vector<RecordRow> rows;  // of the old folder's record list, still to be taken over
  };
  void PickUp();
  void PickUpFrom(const std::wstring& folder, std::vector<FinishedRecording>& files) const;
  void Look();  // makes folders, and moves the records of what has arrived
  bool Hand(const FinishedRecording& file);
  bool TakeOver(Move& move) const;
  bool IsGone(const Move& move) const;
  void KeepFolder(const Move& move) const;

  static constexpr std::size_t kMostMoving = 8;  // pairs that Stop may still have to try

  const std::wstring target_;
  const std::wstring front_;
  const std::string dataRoot_;
  CLFX_MOVEFILE_Client mover_;
  CMSCritical lock_;
  std::deque<FinishedRecording> held_ CMS_GUARDED_BY(lock_);  // until their folder can be made

  // The turn's, and behind it Stop's.
  std::deque<Move> moving_;
  bool listed_ = false;    // the target is in the folder list
  bool pickedUp_ = false;  // what an earlier run left
};

}  // namespace cms
