// Every signal whose default would end the host without a word, and that no
// library of the host uses, ends the run as SIGTERM does: without a result,
// from the first line of the entry point on.  During start-up (the -wait
// pause, a plug-in start, a maintenance script's wait) it cuts the wait
// short and the host goes straight to its end, where the bridge's directory
// is removed; in the main loop it ends the loop.  A signal the caller left
// ignored stays ignored.  What no handler can catch (SIGKILL, a crash) leaves
// the directory to the next host, which removes it.
#pragma once

#include <cstdint>

// Installs the handlers; the entry point's first step.
void WatchTerminationSignals();
bool TerminatedBySignal();
// Sleeps, but not past a termination signal, nor at all after one.
void SleepUnlessTerminated(uint32_t microseconds);
