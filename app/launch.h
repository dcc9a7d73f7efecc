// Processes the host starts: the middleware's main program (-admin), a new
// copy of itself, and the maintenance scripts.  Every child runs in its own
// session; nothing is reported.
#pragma once

#include <cstdint>

void LaunchAdminProgram();
// Removes the bridge's socket directory and ends this process once the new
// one is started; returns only when it could not be created.
void RestartHost();
// Runs the script and waits for it: 0.1 s, then up to 100 polls 0.999 s
// apart, so at most about 100 s; a termination signal ends the wait.
void RunMaintenanceScript(const char* name, bool search);

// Tests only (the host never calls it): the wait's pauses go to pause
// instead of sleeping; null gives the real pauses back.
void SetLaunchPauseForTests(void (*pause)(uint32_t microseconds));
