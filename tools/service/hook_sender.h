// How a hook's messages go out. One thread at a time.
#pragma once

#include <memory>
#include <string>

#include "tools/service/hooks.h"

namespace tools {

enum class HookResult {
  kDone,
  kAgain,    // nobody was there: it is worth another attempt for as long as it takes
  kRefused,  // it was tried and failed: a few attempts are enough
};

struct HookAnswer {
  HookResult result = HookResult::kDone;
  std::string problem;  // one line, with the address; empty when it is done
};

class HookSender {
 public:
  virtual ~HookSender() = default;
  // Returns within the configured time, and at once when the descriptor `interrupt` is readable.
  virtual HookAnswer Send(const HookEvent& event, int interrupt) = 0;
};

// Throw std::runtime_error where the configuration can never work.
std::unique_ptr<HookSender> MakeCommandSender(const HookConfig& config);
std::unique_ptr<HookSender> MakePostSender(const HookConfig& config);
std::unique_ptr<HookSender> MakeMqttSender(const HookConfig& config);

}  // namespace tools
