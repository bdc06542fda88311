// What the camera's ONVIF side is told to be.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "tools/testcamera/camera_options.h"

namespace testcamera {

// How firmwares differ in what they answer; each trait is one that real devices show.
struct OnvifStyle {
  bool prefixes = false;    // other namespace prefixes, as long as the usual ones
  bool pretty = false;      // indented, CR LF after the XML declaration and in CGI answers
  bool attributes = false;  // attributes in another order
  bool sparse = false;      // optional elements left out
  bool addresses = false;   // several XAddrs, link-local ones first
  bool fisheye = false;     // the parameter group of a fisheye camera
  // Answers to everything but the question for the clock:
  bool fault = false;         // a SOAP fault; "Error:invalid value" from the CGI
  bool unauthorized = false;  // 401, whatever the credentials are
  bool truncated = false;     // half of the body, then the end
  bool endless = false;       // a body that never ends
  bool silent = false;        // nothing, on a connection that stays open
  // Answers to a discovery probe:
  bool duplicates = false;  // each answer twice
  bool garbage = false;     // bytes that are no answer in front of it
  bool computer = false;    // those of a desktop computer
};

// The words of --onvif-style, with a blank between them.
std::string OnvifStyleWords();
// False for an unknown word; "plain" changes nothing.
bool AddOnvifStyle(std::string_view word, OnvifStyle* style);

struct OnvifOptions {
  std::uint16_t port = 0;  // for HTTP; 0: any
  OnvifStyle style;
  std::int64_t clockOffset = 0;          // seconds that the camera's clock is ahead
  std::string timeZone = "UTC0";         // as in the variable TZ (POSIX)
  int window = 60;                       // seconds that a created time may be off
  int streams = 3;                       // encoders: three to five
  bool discovery = true;                 // answer WS-Discovery probes
  bool media2 = false;                   // the second version of the media service too
  bool tls = false;                      // HTTPS
  AuthScheme login = AuthScheme::kNone;  // asked for beside the token
  // What it sees by itself, in milliseconds; 0: nothing.
  std::int64_t motionEvery = 0;
  std::int64_t motionLength = 2000;
  std::int64_t inputEvery = 0;
  int longestPull = 60;       // seconds that a pull may wait
  int maxSubscriptions = 10;  // pull points at a time
};

}  // namespace testcamera
