// The servers of http_bench, each answering "/page" with the same 1 KiB in a thread for each
// connection or in its own usual way. A server runs in a process of its own.
#pragma once

#include <string>

namespace bench {

inline constexpr int kPageSize = 1024;

// Prints the port and waits for the end of the standard input.
void ServeUntilInputEnds(int port);

// Starts the named server ("ours", "microhttpd", "civetweb") in this process, prints its port, and
// ends it when the standard input ends. False when there is no such server.
bool RunWebServer(const std::string& name);

}  // namespace bench
