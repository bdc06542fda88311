// What the command line calls the transports.
#pragma once

#include <string>
#include <vector>

namespace tools {

// "udp", "tcp" ...: of --transport, and of what is printed.
std::vector<std::string> TransportWords();
int TransportOf(const std::string& word);  // RTSPTransport of one of them
std::string TransportWord(int transport);

}  // namespace tools
