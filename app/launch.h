// Processes the host starts: the middleware's main program (-admin), a new
// copy of itself, and the maintenance scripts.  Every child runs in its own
// session, with SIGPIPE at its default again; nothing is reported.
#pragma once

#include <cstdint>

void LaunchAdminProgram();
// The restarts that led to this host, from its environment (where they are
// then removed, so no other child inherits them); the entry point's first
// steps.
void TakeRestartHistory();
// Removes the bridge's socket directory and ends this process once the new
// one is started; returns only when it could not be created, or when this
// chain of hosts has restarted kMaxRestarts times within kRestartWindowMs.
void RestartHost();
constexpr unsigned kMaxRestarts = 3;
constexpr long long kRestartWindowMs = 30000;
// Runs the script and waits for it: 0.1 s, then up to 100 polls 0.999 s
// apart, so at most about 100 s; a termination signal ends the wait.  What
// runs is the file that OpenMaintenanceScript checked, whatever its name
// means by then.
void RunMaintenanceScript(const char* name, bool search);

// Tests only (the host never calls them): the wait's pauses go to pause
// instead of sleeping, and checked is called with a script's path between
// its check and its start; null gives the real behaviour back.
void SetLaunchPauseForTests(void (*pause)(uint32_t microseconds));
void SetScriptCheckedHookForTests(void (*checked)(const char* path));
