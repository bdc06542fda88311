// The process's locks over its databases: one each, and no thread holds two of them.
#pragma once

#include "cms/runtime/critical.h"

namespace cms {

CMSCritical& RecordDatabaseLock();  // every record list and every folder span
CMSCritical& EventDatabaseLock();   // every event list
CMSCritical& FolderDatabaseLock();  // every folder list
CMSCritical& GapLogLock();          // every gap log

}  // namespace cms
