// The servers of http_bench, each answering "/page" with the same 1 KiB, as its own documents say
// for many clients. A server runs in a process of its own.
#pragma once

#include <microhttpd.h>

#include <functional>
#include <string>

namespace bench {

inline constexpr int kPageSize = 1024;

// Prints the port and waits for the end of the standard input.
void ServeUntilInputEnds(int port);

// A thread for each connection of libmicrohttpd.
inline constexpr unsigned kMicrohttpdThreads =
    MHD_USE_THREAD_PER_CONNECTION | MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_POLL;
// A server of libmicrohttpd with these flags and a pool of so many threads, or none; prints its
// port and ends it when the standard input ends, behind `ending`.
void ServeMicrohttpd(MHD_AccessHandlerCallback answer, unsigned flags, unsigned threads,
                     const std::function<void()>& ending = {});

// Starts the named server ("ours", "microhttpd", "mhd-pool", "civetweb") in this process, prints
// its port, and ends it when the standard input ends. False when there is no such server.
bool RunWebServer(const std::string& name);

}  // namespace bench
