// What a client application watches of its machine and its network: processor time, whether a
// machine answers, whether network cables are plugged in.
#pragma once

#include <string>

#include "cms/runtime/api.h"
#include "cms/runtime/cable_monitor.h"

namespace cms {

enum CMS_ICMP_ECHO_STATUS : int {
  CMS_ICMP_ECHO_ANSWERED = 0,
  CMS_ICMP_ECHO_TIMED_OUT = 1,
  CMS_ICMP_ECHO_UNREACHABLE = 2,
  CMS_ICMP_ECHO_NOT_PERMITTED = 3,  // to this process, by the system
  CMS_ICMP_ECHO_FAILED = 4,
};

}  // namespace cms

extern "C" {

// Begin and end asking for the processor time of the process's machine. 1, or 0 when the system
// does not tell it. Nothing runs in between; the process has one such measurement. Any thread.
CMS_API int StartGetCpuUsage();
CMS_API void StopGetCpuUsage();
// Percent of all processors that were busy (what top does not call idle or waiting) since the last
// answer, at least half a second ago: a question before that gets the last answer. -1 when not
// started, and in the first half second.
CMS_API int GetCpuUsage();

// The processor's brand string: 1, or 0 with an empty text when it has none.
CMS_API int GetCPUString(std::string& text);
// Non-zero when "Atom" is in it.
CMS_API int IsAtom();

// Sends an ICMP echo request with `payload` bytes (16 to 65,507) to an IPv4 address ("192.0.2.1")
// and waits for the answer, at most the time-out. Returns a CMS_ICMP_ECHO_STATUS; when answered,
// `microseconds` (may be null) is the time it took, otherwise `error` (may be null) tells what is
// wrong and what to do, in one line.
CMS_API int CMSIcmpEcho(const char* address, int payload, int timeoutMilliseconds,
                        int* microseconds, std::string* error);

// Tells of every network interface, first as it is and then whenever it changes: see
// cms/runtime/cable_monitor.h. Null when the system refuses.
CMS_API cms::CNetworkCableMonitor* StartNetworkCableMonitor(cms::NetworkCableCallback callback,
                                                            void* context);
// No callback runs any more when it returns. Not from a callback; null is allowed.
CMS_API void StopNetworkCableMonitor(cms::CNetworkCableMonitor* monitor);

}  // extern "C"
