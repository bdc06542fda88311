// Visibility of the library's public names, and the platforms it is built for.
#pragma once

#include <bit>

#define CMS_API __attribute__((visibility("default")))
// For what a public class holds and hides.
#define CMS_HIDDEN __attribute__((visibility("hidden")))

static_assert(std::endian::native == std::endian::little,
              "records on disk and on the wire are images of little-endian memory");
