#include "tools/serve/audit.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "cms/runtime/log.h"
#include "tools/support/time_text.h"

namespace tools {
namespace {

constexpr std::streamoff kReadFromEnd = 256 * 1024;
constexpr mode_t kOwnersAlone = 0600;

int OpenAudit(const std::string& path) {
  return open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kOwnersAlone);
}

}  // namespace

Audit::Audit(std::string path) : path_(std::move(path)) {
  if (path_.empty()) {
    return;
  }
  const int file = OpenAudit(path_);
  if (file < 0) {
    throw std::runtime_error("cannot write the audit log " + path_ + ": " + std::strerror(errno));
  }
  close(file);
}

bool Audit::Append(const std::string& line) {
  const int file = OpenAudit(path_);
  if (file < 0) {
    return false;
  }
  const std::string text = (torn_ ? "\n" : "") + line + "\n";
  const ssize_t written = write(file, text.data(), text.size());
  const int error = errno;
  close(file);
  torn_ = torn_ ? written <= 0 : written > 0 && static_cast<std::size_t>(written) < text.size();
  errno = error;
  return written == static_cast<ssize_t>(text.size());
}

void Audit::Write(const nlohmann::ordered_json& what) {
  if (path_.empty()) {
    return;
  }
  nlohmann::ordered_json line = {{"time", UtcTime(std::time(nullptr))}};
  line.update(what);
  const ScopeLock lock(lock_);
  if (!Append(line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace))) {
    cms::Log(cms::LogLevel::kError, "page",
             "the audit log " + path_ + " takes nothing: " + std::strerror(errno) +
                 "; lost: " + line.dump(-1, ' ', true, nlohmann::json::error_handler_t::replace));
  }
}

std::vector<nlohmann::ordered_json> Audit::Latest(std::size_t lines) const {
  std::vector<nlohmann::ordered_json> latest;
  std::ifstream file(path_, std::ios::binary | std::ios::ate);
  if (!file) {
    return latest;
  }
  const std::streamoff size = file.tellg();
  file.seekg(std::max<std::streamoff>(size - kReadFromEnd, 0));
  std::string line;
  if (size > kReadFromEnd) {
    std::getline(file, line);  // the end of one
  }
  while (std::getline(file, line)) {
    auto read = nlohmann::ordered_json::parse(line, nullptr, false);
    if (read.is_object()) {
      latest.push_back(std::move(read));
    }
  }
  std::reverse(latest.begin(), latest.end());
  latest.resize(std::min(latest.size(), lines));
  return latest;
}

bool Beginnings::IsOne(const std::string& what, Clock::time_point now) {
  constexpr std::chrono::seconds kLasts{10};
  const ScopeLock lock(lock_);
  std::erase_if(last_, [&](const auto& each) { return now - each.second > kLasts; });
  return last_.insert_or_assign(what, now).second;
}

}  // namespace tools
