// Why a step with a camera failed.
#pragma once

#include <string>

#include "cms/live/connection_status.h"

namespace cms {

// What a step that can fail returns; one made with nothing is success.
struct StreamFailure {
  ConnectionFault fault = ConnectionFault::kNone;
  std::string text;  // one line for people, without the camera's address

  explicit operator bool() const { return fault != ConnectionFault::kNone; }
};

}  // namespace cms
