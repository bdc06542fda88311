#include "tools/support/status_lines.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>

namespace tools {
namespace {

constexpr std::size_t kRowsLeft = 2;  // for the cursor, and the line that stood above

// No character of several bytes is cut in half.
std::string Cut(const std::string& line, std::size_t width) {
  if (line.size() <= width) {
    return line;
  }
  std::size_t end = width;
  while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xC0) == 0x80) {
    --end;
  }
  return line.substr(0, end);
}

}  // namespace

StatusLines::StatusLines(std::FILE* out) : out_(out), terminal_(isatty(fileno(out)) != 0) {}

void StatusLines::Show(const std::vector<std::string>& lines) {
  std::size_t width = std::string::npos;
  std::size_t rows = lines.size();
  winsize size{};
  if (terminal_ && ioctl(fileno(out_), TIOCGWINSZ, &size) == 0 && size.ws_col > 0) {
    width = size.ws_col;
    rows = std::min(rows, size.ws_row > kRowsLeft ? size.ws_row - kRowsLeft : rows);
  }
  if (terminal_ && shown_ > 0) {
    std::fprintf(out_, "\033[%zuA", shown_);
  }
  for (std::size_t i = 0; i < rows; ++i) {
    std::fprintf(out_, "%s%s\n", Cut(lines[i], width).c_str(), terminal_ ? "\033[K" : "");
  }
  shown_ = rows;
  std::fflush(out_);
}

}  // namespace tools
