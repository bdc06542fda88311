#include "fleet/whole_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

namespace cms::fleet {

std::string ReadWholeFile(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

bool WriteWholeFile(const std::string& path, const std::string& text) {
  const std::string fresh = path + ".new";
  const int file = open(fresh.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (file < 0) {
    return false;
  }
  const bool written = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                       fsync(file) == 0;
  close(file);
  return written && rename(fresh.c_str(), path.c_str()) == 0;
}

}  // namespace cms::fleet
