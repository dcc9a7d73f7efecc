// The result file after the main loop, and the maintenance-script mode
// (-test).
#pragma once

#include <cstdint>

// Writes the page's result to storePath (when not empty), then clears "Key".
// A regular file (new: mode 0600) is replaced whole, never partly written;
// a FIFO or character device of the user's or root's is written to as it
// is; a symlink, another user's file or anything else is refused, and a
// failure is said on stderr.
void StoreResult(const char* storePath);
// The result text StoreResult writes, from g_exitResult / g_exitSuccessText.
const char* ResultText();
// "script install" / "script repair" / "script uninstall", exactly.  Returns 0.
int32_t RunTestOption(const char* value);
