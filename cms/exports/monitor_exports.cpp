#include "cms/exports/monitor_exports.h"

#include <exception>
#include <memory>

#include "cms/runtime/address_text.h"
#include "cms/runtime/cpu_usage.h"
#include "cms/runtime/icmp_echo.h"

static_assert(int{cms::CMS_ICMP_ECHO_ANSWERED} ==
                  static_cast<int>(cms::IcmpEchoStatus::kAnswered) &&
              int{cms::CMS_ICMP_ECHO_FAILED} == static_cast<int>(cms::IcmpEchoStatus::kFailed));

namespace {

cms::CpuUsage& Usage() {
  static auto* usage = new cms::CpuUsage;  // threads may still ask while the process ends
  return *usage;
}

}  // namespace

int StartGetCpuUsage() {
  return Usage().Start() ? 1 : 0;
}

void StopGetCpuUsage() {
  Usage().Stop();
}

int GetCpuUsage() {
  return Usage().Percent();
}

int GetCPUString(std::string& text) {
  text = cms::CpuBrand();
  return text.empty() ? 0 : 1;
}

int IsAtom() {
  return cms::CpuBrand().find("Atom") != std::string::npos ? 1 : 0;
}

int CMSIcmpEcho(const char* address, int payload, int timeoutMilliseconds, int* microseconds,
                std::string* error) {
  const std::string text = address != nullptr ? address : "";
  const auto number = cms::AddressOf(text);
  cms::IcmpEchoResult result;
  if (number) {
    result = cms::IcmpEcho(*number, payload, timeoutMilliseconds);
  } else {
    result.error = "ICMP echo to \"" + text + "\": not an IPv4 address";
  }
  if (microseconds != nullptr) {
    *microseconds = result.microseconds;
  }
  if (error != nullptr) {
    *error = result.error;
  }
  return static_cast<int>(result.status);
}

cms::CNetworkCableMonitor* StartNetworkCableMonitor(cms::NetworkCableCallback callback,
                                                    void* context) {
  try {
    auto monitor = std::make_unique<cms::CNetworkCableMonitor>(callback, context);
    return monitor->Start() ? monitor.release() : nullptr;
  } catch (const std::exception&) {
    return nullptr;
  }
}

void StopNetworkCableMonitor(cms::CNetworkCableMonitor* monitor) {
  delete monitor;
}
