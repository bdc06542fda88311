// Whether one of the service's folders may be recorded into.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <string>

namespace tools {

enum class PlaceState {
  kUnknown,     // not looked at yet
  kReady,       // and no other recorder's
  kNotMounted,  // what is to be mounted is not
  kTaken,       // another recorder records into it
};

// A folder that is this recorder's alone while it is ready: it holds a lock on the folder itself,
// which ends with the process. Where nothing can be locked, and where the folder cannot be made, it
// is ready without one: recordings that fail tell of that.
class DiskPlace {
 public:
  // `mount`: a file system has to be mounted there; empty: it need not. Absolute paths.
  DiskPlace(std::string path, std::string mount);
  ~DiskPlace();
  DiskPlace(const DiskPlace&) = delete;
  DiskPlace& operator=(const DiskPlace&) = delete;

  const std::string& Path() const { return path_; }
  const std::string& Mount() const { return mount_; }

  // Whether it is ready. Waits for the disk; one thread.
  bool Look();

  // As of the last look; any thread.
  PlaceState State() const { return state_.load(std::memory_order_relaxed); }
  bool IsReady() const { return State() == PlaceState::kReady; }
  std::string Problem() const;  // one line, what to do with it; empty when there is none

 private:
  PlaceState Seen();
  void Release();

  const std::string path_;
  const std::string mount_;
  int lock_ = -1;  // the looking thread's, as what follows
  dev_t device_ = 0;
  ino_t inode_ = 0;
  std::atomic<PlaceState> state_{PlaceState::kUnknown};
};

}  // namespace tools
