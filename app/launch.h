// Processes the host starts: the middleware's main program (-admin), a new
// copy of itself, and the maintenance scripts.  Every child runs in its own
// session; nothing is reported.
#pragma once

#include <cstdint>

void LaunchAdminProgram();
// Removes the bridge's socket directory and ends this process once the new
// one is started; returns only when it could not be created.
void RestartHost();
// Runs the script and waits 0.1 s, then polls up to 100 times every 0.999 s.
void RunMaintenanceScript(const char* name, bool search);

// The same with another wait; for tests only (the host never calls it).
void RunMaintenanceScriptWaiting(const char* name, bool search, uint32_t firstSleepUs, uint32_t polls,
                                 uint32_t pollSleepUs);
