// What a recorder that runs as a service is told by its configuration file. docs/service.md has
// every key, packaging/recorder.toml an example of each.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "cms/runtime/log.h"
#include "tools/service/config_table.h"
#include "tools/service/hooks.h"
#include "tools/service/timetable.h"
#include "tools/support/camera_security.h"

namespace tools {

// How long recordings are kept; 0: that does not matter.
struct RetentionConfig {
  unsigned days = 0;
  std::uint64_t bytes = 0;
  bool operator==(const RetentionConfig&) const = default;
};

// A folder of recordings and their databases, usually a disk of its own.
struct DiskConfig {
  std::string path;             // absolute
  std::uint64_t bytes = 0;      // that all its recordings may take; 0: as many as there are
  std::uint64_t freeBytes = 0;  // that are kept free on it
  std::string mount;            // absolute; where a disk has to be mounted, empty: nowhere
  bool operator==(const DiskConfig&) const = default;
};

// One camera.
struct SiteConfig {
  unsigned number = 0;  // N of its Rec_Site<N>_ files, from 1: not its place in the file
  std::string name;
  bool enabled = true;
  std::string url;  // rtsp[s]://, http:// or onvif[s]://, without user and password
  std::string user;
  std::string password;
  int transport = 0;  // RTSPTransport
  CameraSecurity security;
  std::string secondUrl;  // of a smaller stream that the page shows; empty: that of url
  std::string plan;
  TimeZone timeZone;  // that the plan goes by
  std::string
      onvif;  // onvif[s]://HOST[:PORT], where the camera tells of events; empty: it does not
  std::vector<std::string> events;  // that begin a recording, by CameraEventWords
  unsigned preAlarm = 0;            // seconds
  unsigned afterEvent = 0;          // seconds
  int fileSizeMiB = 0;
  std::string disk;    // path of one of the disks; empty: any
  std::string moveTo;  // absolute; empty: nowhere
  RetentionConfig retention;
  bool operator==(const SiteConfig&) const = default;
};

struct PageConfig {
  bool on = false;
  std::string bind;
  std::uint16_t port = 0;
  std::string usersFile;           // absolute; empty: nobody logs in
  std::string audit;               // likewise; empty: nothing is kept
  std::vector<std::string> names;  // of this machine, in browsers
  std::string tlsCertificate;      // absolute; empty: plain HTTP
  std::string tlsKey;
  bool operator==(const PageConfig&) const = default;
};

struct RecorderConfig {
  std::vector<DiskConfig> disks;  // one at least
  bool moveOnFailure = true;      // a failed disk's sites go on on another one
  RetentionConfig retention;      // of sites that have none of their own
  PageConfig page;
  cms::LogLevel logLevel = cms::LogLevel::kInfo;
  std::vector<HookConfig> hooks;
  std::map<std::string, Timetable> plans;  // those named by sites
  std::vector<SiteConfig> sites;           // in the order of their numbers
};

Timetable PlanOf(const RecorderConfig& config, const SiteConfig& site);

// The file and, with it, the files and credentials of the passwords. Relative paths in it are
// relative to its folder. With errors among the problems the result is of no use. Waits for the
// disk.
RecorderConfig ReadRecorderConfig(const std::string& path, ConfigProblems* problems);

// The same of a text; `path` is where it lies.
RecorderConfig ParseRecorderConfig(const std::string& text, const std::string& path,
                                   ConfigProblems* problems);

// The folders of its disks alone, absolute, in their order. Nothing else of the file is looked at.
std::vector<std::string> ReadDataFolders(const std::string& path, ConfigProblems* problems);

// "recorder.toml:12:3: ..." for each of them.
std::vector<std::string> LinesOf(const std::string& path,
                                 const std::vector<ConfigProblem>& problems);

}  // namespace tools
