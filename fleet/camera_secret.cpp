#include "fleet/camera_secret.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "fleet/base64.h"

namespace cms::fleet {
namespace {

constexpr std::size_t kKeySize = 32;
constexpr std::size_t kNonceSize = 12;
constexpr std::size_t kTagSize = 16;

using Cipher = std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)>;

const unsigned char* BytesOf(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

std::string RandomBytes(std::size_t count) {
  std::string bytes(count, '\0');
  if (RAND_bytes(reinterpret_cast<unsigned char*>(bytes.data()), static_cast<int>(count)) != 1) {
    throw std::runtime_error("the system gives no random numbers");
  }
  return bytes;
}

std::optional<std::string> FromHex(std::string_view text) {
  if (text.size() != 2 * kKeySize ||
      text.find_first_not_of("0123456789abcdefABCDEF") != std::string_view::npos) {
    return std::nullopt;
  }
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(std::string(text.substr(i, 2)), nullptr, 16));
  }
  return bytes;
}

// Encrypts, or decrypts and checks `tag`; nullopt when that does not fit.
std::optional<std::string> Run(bool encrypt, const std::string& key, std::string_view nonce,
                               std::string_view owner, std::string_view text, std::string* tag) {
  const Cipher cipher(EVP_CIPHER_CTX_new(), &EVP_CIPHER_CTX_free);
  std::string result(text.size(), '\0');
  int length = 0;
  auto* bytes = reinterpret_cast<unsigned char*>(result.data());
  if (!cipher ||
      EVP_CipherInit_ex(cipher.get(), EVP_aes_256_gcm(), nullptr, BytesOf(key), BytesOf(nonce),
                        encrypt ? 1 : 0) != 1 ||
      EVP_CipherUpdate(cipher.get(), nullptr, &length, BytesOf(owner),
                       static_cast<int>(owner.size())) != 1 ||
      EVP_CipherUpdate(cipher.get(), bytes, &length, BytesOf(text),
                       static_cast<int>(text.size())) != 1) {
    return std::nullopt;
  }
  if (!encrypt &&
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_SET_TAG, kTagSize, tag->data()) != 1) {
    return std::nullopt;
  }
  if (EVP_CipherFinal_ex(cipher.get(), bytes + length, &length) != 1) {
    return std::nullopt;
  }
  if (encrypt &&
      EVP_CIPHER_CTX_ctrl(cipher.get(), EVP_CTRL_GCM_GET_TAG, kTagSize, tag->data()) != 1) {
    return std::nullopt;
  }
  return result;
}

}  // namespace

SecretKeys SecretKeys::Read(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  struct stat status {};
  if (!(text << file.rdbuf()) || stat(path.c_str(), &status) != 0) {
    throw std::runtime_error(path + ": the key file cannot be read: " + std::strerror(errno));
  }
  if ((status.st_mode & (S_IRWXG | S_IRWXO)) != 0) {
    throw std::runtime_error(path + ": others may read this key file; run chmod 600 on it");
  }
  try {
    return SecretKeys(text.str());
  } catch (const std::exception& error) {
    throw std::runtime_error(path + ": " + error.what());
  }
}

std::string SecretKeys::MakeFileText() {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text = "k1:";
  for (const char byte : RandomBytes(kKeySize)) {
    const auto value = static_cast<unsigned char>(byte);
    text += {kDigits[value >> 4], kDigits[value & 15]};
  }
  return text + "\n";
}

SecretKeys::SecretKeys(std::string_view text) {
  std::istringstream lines{std::string(text)};
  for (std::string line; std::getline(lines, line);) {
    if (line.empty()) {
      continue;
    }
    const std::size_t colon = line.find(':');
    const auto key = colon == std::string::npos || colon == 0
                         ? std::nullopt
                         : FromHex(std::string_view(line).substr(colon + 1));
    if (!key) {
      throw std::runtime_error("a line is not ID:64 hexadecimal digits");
    }
    first_ = first_.empty() ? line.substr(0, colon) : first_;
    keys_[line.substr(0, colon)] = *key;
  }
  if (keys_.empty()) {
    throw std::runtime_error("there is no key in it");
  }
}

std::string SecretKeys::Seal(std::string_view password, std::string_view owner) const {
  const std::string nonce = RandomBytes(kNonceSize);
  std::string tag(kTagSize, '\0');
  const auto text = Run(true, keys_.at(first_), nonce, owner, password, &tag);
  if (!text) {
    throw std::runtime_error("the password cannot be encrypted");
  }
  return first_ + ":" + ToBase64(nonce + *text + tag);
}

std::optional<std::string> SecretKeys::Open(std::string_view sealed, std::string_view owner) const {
  const std::size_t colon = sealed.find(':');
  if (colon == std::string_view::npos) {
    return std::nullopt;
  }
  const auto key = keys_.find(sealed.substr(0, colon));
  const auto bytes = FromBase64(sealed.substr(colon + 1));
  if (key == keys_.end() || !bytes || bytes->size() < kNonceSize + kTagSize) {
    return std::nullopt;
  }
  const std::string_view all = *bytes;
  std::string tag(all.substr(all.size() - kTagSize));
  return Run(false, key->second, all.substr(0, kNonceSize), owner,
             all.substr(kNonceSize, all.size() - kNonceSize - kTagSize), &tag);
}

std::pair<std::string, std::string> SecretKeys::PeerLogin() const {
  return {first_, *PeerPassword(first_)};
}

std::optional<std::string> SecretKeys::PeerPassword(std::string_view user) const {
  constexpr std::string_view kPurpose = "recorders of one fleet";
  const auto key = keys_.find(user);
  std::string code(EVP_MAX_MD_SIZE, '\0');
  unsigned size = 0;
  if (key == keys_.end() ||
      HMAC(EVP_sha256(), key->second.data(), static_cast<int>(key->second.size()),
           BytesOf(kPurpose), kPurpose.size(), reinterpret_cast<unsigned char*>(code.data()),
           &size) == nullptr) {
    return std::nullopt;
  }
  code.resize(size);
  return ToBase64(code);
}

}  // namespace cms::fleet
