// Authenticator answers one server's Basic and Digest challenges (RFC 2617), for RTSP and HTTP
// alike, when they are spelled in one way; cms::Login (login.h) understands all that are legal.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "cms/runtime/api.h"

// Keeps the credentials and the last challenge, and makes the "Authorization" line of the next
// request. It never fails: what is missing is empty in the line. A null text counts as an empty
// one. Copying copies all. Not locked: it belongs to the thread that makes the requests.
//
// What goes into a line can add no line of its own: CR and LF are left out of every value. A
// quotation mark in the user name is escaped (RFC 2617, quoted-string); all else stands as it is,
// because servers compare backslashes unescaped. The digest is made of the values as they were
// given.
class CMS_API Authenticator {
 public:
  static constexpr std::size_t kMaxChallengeText = 255;     // of a realm or nonce
  static constexpr std::size_t kMaxBasicCredentials = 189;  // of user ":" password

  void Reset();
  void SetRealmAndNonce(const char* realm, const char* nonce);
  void SetUsernameAndPassword(const char* username, const char* password);
  void Assign(const char* username, const char* password, const char* realm, const char* nonce);

  std::string GetRealm() const { return realm_; }
  std::string GetNonce() const { return nonce_; }
  std::string GetUsername() const { return username_; }
  std::string GetPassword() const { return password_; }

  // Reads the challenge out of a whole response; 1 when one was found, else 0 and nothing changes.
  // The first line decides that starts with
  //   WWW-Authenticate: Digest realm="...", nonce="..."   or   WWW-Authenticate: Basic realm="..."
  // in this case of letters and this order. Parameters behind are ignored, parameters in between
  // make the line match nothing. An empty value or one above kMaxChallengeText matches nothing. A
  // Basic challenge leaves an earlier nonce in place: Reset when going to another server.
  int ParserealmFromServerResponse(std::string_view response);

  // The line for the next request, ended by CR LF: Digest when there is a nonce and neither
  // argument is null, else Basic.
  std::string GetAuthString(const char* method, const char* uri) const;

  // Digest without qop: only the user name, realm, nonce, uri and response are sent.
  std::string GetDigestAuthString(const char* method, const char* uri) const;

  // Basic. Credentials above kMaxBasicCredentials give an empty text: the request then goes out
  // without the line and is refused, rather than with a cut password that counts as a wrong one.
  std::string GetBase64EncodeAuthString() const;

 private:
  std::string realm_;
  std::string nonce_;
  std::string username_;
  std::string password_;
};
