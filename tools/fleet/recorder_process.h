// Records the cameras of a fleet's recorder with the recorder of one machine, a process of its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fleet/camera_recorder.h"
#include "tools/fleet/child_process.h"
#include "tools/fleet/disk_probe.h"
#include "tools/fleet/private_folder.h"

namespace tools {

// `orvanta record --config` with a file that only this user can read and no disk holds, since
// passwords stand in it. A process that ends by itself is started again.
class RecorderProcess : public cms::fleet::CameraRecorder {
 public:
  // `extra` is TOML that goes in front of the sites, such as [page] and [[hooks]].
  RecorderProcess(std::string folder, std::string extra);
  ~RecorderProcess() override;
  RecorderProcess(const RecorderProcess&) = delete;
  RecorderProcess& operator=(const RecorderProcess&) = delete;

  void Record(const std::vector<cms::fleet::RecordedCamera>& cameras) override;
  cms::fleet::CameraRecorderStatus Status() override;

 private:
  using Clock = std::chrono::steady_clock;

  void WriteConfig(const std::vector<cms::fleet::RecordedCamera>& cameras);
  void Start();
  std::int64_t LongestWait() const;

  const std::string folder_;
  const std::string extra_;
  const PrivateFolder config_;
  std::unique_ptr<ChildProcess> process_;
  Clock::time_point started_;
  Clock::time_point lastAnswer_;
  std::vector<std::unique_ptr<DiskProbe>> probes_;  // of its disks
  bool answered_ = false;  // since its start: it listens to SIGHUP from then on
  bool unread_ = false;    // the file was written since it was read
};

// Where recordings are: the paths of [[disks]] in `extra`, else `folder` alone.
std::vector<std::string> DataFoldersOf(const std::string& folder, const std::string& extra);

// The configuration as `orvanta record --config` reads it.
std::string RecorderConfigText(const std::string& folder, const std::string& extra,
                               const std::vector<cms::fleet::RecordedCamera>& cameras);

}  // namespace tools
