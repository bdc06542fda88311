// Counts what receiving threads allocate.
#pragma once

namespace test {

// By threads whose name began with "cms-recv" when they first allocated, since the program began.
long Allocations();

}  // namespace test
