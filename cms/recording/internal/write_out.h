// One buffer into a file, for the threads that write recordings.
#pragma once

#include <cstdint>

#include "cms/runtime/file_io.h"

namespace cms {

// Writes all of the buffer, again and again where that helps: interrupted, partly done, "try again"
// from a file that is no plain one. 0, or the errno of what failed; `written` counts on.
int WriteOut(FileIo& io, int handle, const std::uint8_t* data, std::uint32_t length,
             std::uint32_t& written);

// Asks the system to prefer the calling thread; without the right to it nothing changes.
void PreferThisThread();

}  // namespace cms
