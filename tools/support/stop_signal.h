// Ctrl-C and SIGTERM as something a job waits for, so that it ends with its files closed.
#pragma once

#include <chrono>

namespace tools {

// From now on SIGINT and SIGTERM ask the job to stop; another one half a second later ends the
// process at once. Called once, by main.
void CatchStopSignals();

// Whether a stop was asked for. Any thread.
bool StopRequested();

// Waits until a stop is asked for, at most so long; true when it was. Any number of threads.
bool WaitForStop(std::chrono::milliseconds limit);
void WaitForStop();

// Readable for good once a stop was asked for, to be waited on beside something else.
int StopDescriptor();

}  // namespace tools
