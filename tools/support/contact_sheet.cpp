#include "tools/support/contact_sheet.h"

#include <algorithm>

#include "tools/support/picture_file.h"

namespace tools {
namespace {

constexpr std::size_t kBytesPerPixel = 4;
constexpr long kEdge = 4;              // pixels around each picture
constexpr unsigned char kDark = 0x20;  // of what is behind them
constexpr long kEmptyHeight = 180;

}  // namespace

void ContactSheet::Add(const unsigned char* bgra, long width, long height) {
  Cell cell;
  if (bgra != nullptr && width > 0 && height > 0) {
    cell.width = width;
    cell.height = height;
    cell.pixels.assign(bgra, bgra + static_cast<std::size_t>(width * height) * kBytesPerPixel);
  }
  cells_.push_back(std::move(cell));
}

void ContactSheet::Write(const std::string& path) const {
  long cellHeight = 0;
  for (const Cell& cell : cells_) {
    cellHeight = std::max(cellHeight, cell.height);
  }
  cellHeight = cellHeight == 0 ? kEmptyHeight : cellHeight;
  const auto rows = static_cast<long>((cells_.size() + columns_ - 1) / columns_);
  const long width = kEdge + static_cast<long>(columns_) * (kColumnWidth + kEdge);
  const long height = kEdge + rows * (cellHeight + kEdge);
  std::vector<unsigned char> sheet(static_cast<std::size_t>(width * height) * kBytesPerPixel,
                                   kDark);
  for (std::size_t i = 3; i < sheet.size(); i += kBytesPerPixel) {
    sheet[i] = 0xFF;
  }
  for (std::size_t i = 0; i < cells_.size(); ++i) {
    const Cell& cell = cells_[i];
    const long left = kEdge + static_cast<long>(i % columns_) * (kColumnWidth + kEdge);
    const long top = kEdge + static_cast<long>(i / columns_) * (cellHeight + kEdge);
    const long shown = std::min(cell.width, kColumnWidth);
    for (long y = 0; y < cell.height; ++y) {
      std::copy_n(cell.pixels.begin() + y * cell.width * 4, shown * 4,
                  sheet.begin() + ((top + y) * width + left) * 4);
    }
  }
  WritePng(path, sheet.data(), width, height);
}

}  // namespace tools
