// SIGTERM, SIGINT and SIGHUP end the run without a result.
#pragma once

void WatchTerminationSignals();
bool TerminatedBySignal();
