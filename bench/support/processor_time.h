// What a server costs.
#pragma once

namespace bench {

// User and system time of a process and its children that run, in microseconds.
double ProcessorTime(int pid);

}  // namespace bench
