// SIGTERM, SIGINT and SIGHUP end the run without a result, from the first
// line of the entry point on: during start-up (the -wait pause, a plug-in
// start, a maintenance script's wait) they cut the wait short and the host
// goes straight to its end, where the bridge's directory is removed; in the
// main loop they end the loop.
#pragma once

#include <cstdint>

// Installs the handlers; the entry point's first step.
void WatchTerminationSignals();
bool TerminatedBySignal();
// Sleeps, but not past a termination signal, nor at all after one.
void SleepUnlessTerminated(uint32_t microseconds);
