#include "tools/service/config_secret.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

namespace tools {
namespace {

namespace fs = std::filesystem;

std::optional<std::ifstream> OpenSecret(const ConfigTable& table, std::string_view key,
                                        const std::string& path) {
  errno = 0;
  std::ifstream file(path);
  if (!file || !fs::is_regular_file(path)) {
    table.Wrong(
        key, "cannot read " + path + ": " + (errno != 0 ? std::strerror(errno) : "it is no file"));
    return std::nullopt;
  }
  return file;
}

std::string FirstLineOf(const ConfigTable& table, std::string_view key, const std::string& path) {
  auto file = OpenSecret(table, key, path);
  std::string line;
  if (file && (!std::getline(*file, line) || line.empty())) {
    table.Wrong(key, path + ": its first line is empty, expected the password");
  }
  if (line.ends_with('\r')) {
    line.pop_back();
  }
  return line;
}

// systemd decrypts or copies them there for the service alone.
std::string CredentialFile(const ConfigTable& table, const std::string& name) {
  const char* const folder = std::getenv("CREDENTIALS_DIRECTORY");
  if (name.find('/') != std::string::npos) {
    table.Wrong("credential", "found \"" + name + "\", expected the name of a credential");
  } else if (folder == nullptr) {
    table.Wrong("credential",
                "$CREDENTIALS_DIRECTORY is not set: expected to be started by systemd with "
                "LoadCredential=" +
                    name + ":FILE");
  } else {
    return std::string(folder) + "/" + name;
  }
  return "";
}

}  // namespace

std::string ReadPassword(const ConfigTable& table, const std::string& folder, bool* plain) {
  const auto text = table.Text("password");
  const auto file = table.Text("password-file");
  const auto credential = table.Text("credential");
  if ((text ? 1 : 0) + (file ? 1 : 0) + (credential ? 1 : 0) > 1) {
    table.Wrong(text ? "password" : "password-file",
                "expected one of password, password-file and credential");
    return "";
  }
  if (file) {
    return FirstLineOf(table, "password-file", (fs::path(folder) / *file).string());
  }
  if (credential) {
    const std::string path = CredentialFile(table, *credential);
    return path.empty() ? "" : FirstLineOf(table, "credential", path);
  }
  *plain = *plain || text;
  return text.value_or("");
}

}  // namespace tools
