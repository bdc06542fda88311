// Counts what threads that receive or capture allocate.
#pragma once

namespace test {

// By threads whose name began with "cms-recv" or "cms-audio-in" when they first allocated, since
// the program began.
long Allocations();

}  // namespace test
