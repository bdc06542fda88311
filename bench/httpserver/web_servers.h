// The servers of http_bench, each answering "/page" with the same 1 KiB in a thread for each
// connection or in its own usual way. A server runs in a process of its own.
#pragma once

#include <microhttpd.h>

#include <functional>
#include <string>

namespace bench {

inline constexpr int kPageSize = 1024;

// Prints the port and waits for the end of the standard input.
void ServeUntilInputEnds(int port);

// A server of libmicrohttpd with a thread for each connection; prints its port and ends it when the
// standard input ends, behind `ending`.
void ServeMicrohttpd(MHD_AccessHandlerCallback answer, const std::function<void()>& ending = {});

// Starts the named server ("ours", "microhttpd", "civetweb") in this process, prints its port, and
// ends it when the standard input ends. False when there is no such server.
bool RunWebServer(const std::string& name);

}  // namespace bench
