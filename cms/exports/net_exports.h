// Exported functions of the socket I/O.
#pragma once

#include "cms/runtime/api.h"

// Ends every socket I/O thread of the process. Clients that are still registered are not served any
// more; registrations made later start new threads. Not from a callback.
extern "C" CMS_API void StopEachClientNBManager();
