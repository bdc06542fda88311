// Small pictures side by side on one sheet: a row for each moment, a column for each channel.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tools {

class ContactSheet {
 public:
  static constexpr long kColumnWidth = 320;

  explicit ContactSheet(std::size_t columns) : columns_(columns) {}

  // BGRA rows without gaps, at most kColumnWidth wide; null leaves a dark place. Columns are filled
  // from the left, and a full row begins the next one.
  void Add(const unsigned char* bgra, long width, long height);
  bool IsEmpty() const { return cells_.empty(); }

  // Throws std::runtime_error naming the path.
  void Write(const std::string& path) const;

 private:
  struct Cell {
    std::vector<unsigned char> pixels;
    long width = 0;
    long height = 0;
  };

  std::size_t columns_;
  std::vector<Cell> cells_;
};

}  // namespace tools
