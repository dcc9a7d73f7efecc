// The page's Application commands, run in the host on the main thread.
#pragma once

#include <cstdint>

// Set by "exit" (array new), read by StoreResult, released by the entry point.
extern char* g_exitResult;
extern char* g_exitSuccessText;

// argc counts the page's arguments, the command included.  arg2/arg3 are
// null unless that argument was a string; arg2Number is argument 2 when it
// was a number, NaN otherwise.
// Returns kExitTurnAwaited when the command was "exit": the page's script
// runs on after it, and the loop ends once the web process reports the end
// of that script turn (EndExitTurn), or after kExitTurnBoundMs at most.
int32_t RunApplicationCommand(const char* command, int32_t argc, const char* arg2, const char* arg3,
                              double arg2Number);
constexpr int32_t kExitTurnAwaited = 1;
constexpr unsigned kExitTurnBoundMs = 3000;
// The page's script turn that called "exit" has ended: the loop ends now.
void EndExitTurn();

// A script number as a packed size: truncated toward zero through 64 bits,
// low 32 bits kept; NaN and numbers outside the 64-bit range give 0.
uint32_t PackedSizeFromNumber(double value);

// Releases the exit texts (after the result store).
void ReleaseExitTexts();
