// SoapTransfer: SOAP requests to one camera over libcurl, one after the other.
#pragma once

#include <string>
#include <string_view>

#include "cms/ipcam/internal/certificate_rule.h"
#include "cms/ipcam/internal/curl_support.h"
#include "cms/ipcam/onvif_access.h"

namespace cms {

struct SoapRequestText {
  std::string url;
  std::string action;      // empty: the URL's content is fetched, and nothing is sent
  std::string envelope;    // UTF-8
  int timeoutMs = 20'000;  // for all of it
};

struct SoapReply {
  bool answered = false;      // a status line came
  bool unauthorized = false;  // the camera does not take the user or the password
  std::string error;          // UTF-8, one line; empty when the camera did what was asked
  std::wstring text;          // the answer in the spelling of Normalized, a fault too
  std::string content;        // in its place, what was fetched
};

// One thread at a time uses it. The connection is kept from one request to the next.
class SoapTransfer {
 public:
  explicit SoapTransfer(const OnvifAccess& access);
  ~SoapTransfer();
  SoapTransfer(const SoapTransfer&) = delete;
  SoapTransfer& operator=(const SoapTransfer&) = delete;

  // Gets the handle ready for a multi handle to do the request. False when that cannot be done.
  bool Prepare(const SoapRequestText& request);
  CURL* Handle() const { return easy_.get(); }
  // What came of it, when the multi handle is done with it. True in place of a reply when the same
  // is to be done once more, with the login that the camera asked for: `Handle` is ready for it.
  bool IsToBeRepeated(CURLcode code);
  SoapReply TakeReply(CURLcode code);

  // Does it here and now, on a multi handle of its own, until the descriptor is readable.
  SoapReply Run(const SoapRequestText& request, int interrupt);

 private:
  bool SetUp();
  void SetLogin();
  template <typename Value>
  void Set(CURLoption option, Value value) {
    curl_easy_setopt(easy_.get(), option, value);
  }
  static std::size_t OnHeader(char* data, std::size_t size, std::size_t count, void* self);
  static std::size_t OnBody(char* data, std::size_t size, std::size_t count, void* self);
  long Status() const;
  std::size_t MostBytes() const;  // of an answer

  const OnvifAccess access_;
  const CertificateRule rule_;
  CurlEasy easy_;
  CurlMulti multi_;  // of Run, made when first needed; destroyed before the handle
  SoapRequestText request_;
  CurlList headers_;
  std::string body_;
  bool fetches_ = false;
  bool freshLogin_ = false;    // the challenge is of this request
  bool logsIn_ = false;        // with what the camera asked for
  bool digestWanted_ = false;  // it asks for that
  bool basicWanted_ = false;
  char problem_[CURL_ERROR_SIZE] = {};
};

}  // namespace cms
