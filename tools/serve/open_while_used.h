// A camera's smaller stream, which is open only while somebody watches it.
#pragma once

#include "cms/runtime/critical.h"
#include "tools/support/live_site.h"

namespace tools {

// Any thread.
class OpenWhileUsed {
 public:
  // `site` null: what is watched is open anyway.
  explicit OpenWhileUsed(LiveSite* site) : site_(site) {}

  // It is used while this lives.
  class Use {
   public:
    explicit Use(OpenWhileUsed& owner) : owner_(&owner) { owner.Begin(); }
    ~Use() { owner_->End(); }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

   private:
    OpenWhileUsed* owner_;
  };

 private:
  void Begin() {
    ScopeLock lock(lock_);
    if (++users_ == 1 && site_ != nullptr) {
      site_->Open();
    }
  }
  void End() {
    ScopeLock lock(lock_);
    if (--users_ == 0 && site_ != nullptr) {
      site_->Close();
    }
  }

  LiveSite* const site_;
  CMSCritical lock_;
  int users_ CMS_GUARDED_BY(lock_) = 0;
};

}  // namespace tools
