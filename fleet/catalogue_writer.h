// Keeps the engine's catalogue of what this recorder holds.
#pragma once

#include <atomic>
#include <map>
#include <string>
#include <thread>

#include "cms/runtime/wake_up.h"
#include "fleet/engine_access.h"
#include "fleet/engine_client.h"
#include "fleet/held_recordings.h"
#include "fleet/token_log.h"

namespace cms::fleet {

// A thread of its own looks at the indexes once a minute, writes the days that changed, takes away
// those that retention removed, and saves the tokens when there are new ones.
class CatalogueWriter {
 public:
  // Both outlive it.
  CatalogueWriter(EngineAccess access, std::string name, HeldRecordings& recordings,
                  TokenLog& tokens);
  ~CatalogueWriter();
  CatalogueWriter(const CatalogueWriter&) = delete;
  CatalogueWriter& operator=(const CatalogueWriter&) = delete;

 private:
  void Run();
  void Write();

  EngineClient engine_;
  const std::string name_;
  HeldRecordings& recordings_;
  TokenLog& tokens_;
  bool isRead_ = false;
  std::map<std::string, std::string> written_;  // what the engine has, by keys
  std::atomic<bool> ends_ = false;
  WakeUp end_;
  std::thread thread_;
};

}  // namespace cms::fleet
