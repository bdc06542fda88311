// What both ends of TLS need of its library: a socket as it sees it, and its errors for people.
#pragma once

#include <string>

struct bio_st;

namespace cms {

struct TlsWire {
  int socket = -1;
  bool mayRead = true;  // else there is nothing to be read but what was read already
};

// nullptr when memory is short. The wire has to live as long as it does.
bio_st* NewSocketBio(TlsWire& wire);

// The newest error of this thread, or the other text where there is none.
std::string TlsErrorText(const char* otherwise);

}  // namespace cms
