// The recorder as a service: the sites of a configuration file, recorded until a stop is asked for.
#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "cms/runtime/critical.h"
#include "cms/runtime/thread_annotations.h"
#include "tools/serve/web_server.h"
#include "tools/service/disk_keeper.h"
#include "tools/service/figure_events.h"
#include "tools/service/hooks.h"
#include "tools/service/recorder_config.h"
#include "tools/service/recorder_figures.h"
#include "tools/service/service_manager.h"
#include "tools/service/service_site.h"
#include "tools/service/status_socket.h"
#include "tools/support/log_output.h"

namespace tools {

// One thread runs it and waits neither for a camera nor for a disk.
class RecorderService {
 public:
  RecorderService(std::string path, RecorderConfig config);
  ~RecorderService();
  RecorderService(const RecorderService&) = delete;
  RecorderService& operator=(const RecorderService&) = delete;

  // Until a stop is asked for; with SIGHUP the file is read again. The exit status; with `json` one
  // object at the end tells of every site. Throws std::runtime_error when another recorder records
  // into one of the disks. Ends the process itself when a disk holds up the end.
  int Run(bool json);

  RecorderFigures Figures() const;  // any thread

 private:
  using Clock = std::chrono::steady_clock;
  using Site = std::shared_ptr<ServiceSite>;

  void Apply(RecorderConfig config);
  void Reload();
  void KeepDisks();
  void ShowPage(const PageConfig& before);
  void RefuseTakenDisks() const;
  std::shared_ptr<DiskPlace> PlaceFor(const SiteConfig& site) const;
  void LookAtDisks();
  void GoOnElsewhere(const SiteConfig& site);
  void SetHooks(const std::vector<HookConfig>& before);
  void AnswerQuestions();
  std::map<std::string, std::shared_ptr<DiskPlace>> Places() const;
  void EndHooks();
  void Tell(HookEventKind kind);
  void Forget();
  bool End();
  void Print() const;
  std::vector<std::shared_ptr<ServeSite>> PageSites() const;
  std::map<unsigned, Site> Sites() const;
  std::set<std::string> FailedDisks() const;

  const std::string path_;
  const std::int64_t startedAt_;
  ServiceManager manager_;
  LogOutput log_;
  RecorderConfig config_;
  cms::OnvifEvents onvifEvents_;  // outlives the sites
  std::vector<Site> ending_;      // their places are taken, or nobody's any more
  std::vector<std::unique_ptr<DiskKeeper>> endingKeepers_;

  mutable CMSCritical lock_;
  std::map<unsigned, Site> sites_ CMS_GUARDED_BY(lock_);  // by their numbers
  std::map<std::string, std::unique_ptr<DiskKeeper>> keepers_ CMS_GUARDED_BY(lock_);  // by paths
  std::set<std::string> failedDisks_ CMS_GUARDED_BY(lock_);  // until the file is read again
  std::uint64_t reloads_ CMS_GUARDED_BY(lock_) = 0;
  std::string configProblem_ CMS_GUARDED_BY(lock_);

  FigureEvents events_;
  std::shared_ptr<Hooks> hooks_ CMS_GUARDED_BY(lock_);
  // On each disk that is there; null where that failed.
  std::map<std::string, std::unique_ptr<StatusSocket>> status_;
  std::unique_ptr<WebServer> page_;
};

}  // namespace tools
