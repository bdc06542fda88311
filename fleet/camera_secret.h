// Passwords of cameras as the engine has them: sealed with a key that only recorders and those who
// configure the fleet have.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace cms::fleet {

// A file of lines "ID:64 hexadecimal digits". The first key seals, all of them open, so that a key
// can be changed while recorders run.
class SecretKeys {
 public:
  // Throws std::runtime_error when the file cannot be read, has no key, or others may read it.
  static SecretKeys Read(const std::string& path);
  static std::string MakeFileText();  // of one new key

  explicit SecretKeys(std::string_view text);  // throws std::runtime_error

  // "ID:" and the base64 of nonce, ciphertext and tag (AES-256-GCM). `owner` is the camera's name:
  // a text that was sealed for one camera does not open for another.
  std::string Seal(std::string_view password, std::string_view owner) const;
  std::optional<std::string> Open(std::string_view sealed, std::string_view owner) const;

  // The login by which recorders of a fleet know each other: user and password of the first key;
  // and the password of a user, which is the ID of any of the keys.
  std::pair<std::string, std::string> PeerLogin() const;
  std::optional<std::string> PeerPassword(std::string_view user) const;

 private:
  std::string first_;
  std::map<std::string, std::string, std::less<>> keys_;
};

}  // namespace cms::fleet
