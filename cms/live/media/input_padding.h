#pragma once

namespace cms {

// Decoders read ahead: so many bytes behind the data that they are given have to be readable.
inline constexpr int kInputPadding = 64;

}  // namespace cms
