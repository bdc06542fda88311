// One row of a view from the rows of a plane, by the table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace cms {

struct FisheyeRow {
  std::span<const std::uint32_t> places;     // as FisheyeTable has them
  std::span<const std::uint16_t> fractions;  // as many
};

// `from` is the plane, its rows `stride` bytes apart. Writes a byte for each place.
void DewarpBytes(const FisheyeRow& row, const std::uint8_t* from, std::size_t stride,
                 std::uint8_t outside, std::uint8_t* to);
// The same with four bytes a pixel; outside it is black, and opaque.
void DewarpPixels(const FisheyeRow& row, const std::uint8_t* from, std::size_t stride,
                  std::uint8_t* to);

}  // namespace cms
